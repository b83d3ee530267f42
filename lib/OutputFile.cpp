#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "QuotedText.h"

namespace {

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

const char* KindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

// A name beside `target` that nobody uses: hidden, and telling what it is for.
std::string TemporaryName(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Room for the suffix within a file name's 255 bytes.
    const std::string base = BaseOf(target).substr(0, 200);
    char suffix[64];
    std::snprintf(suffix, sizeof suffix, ".%d-%u-%lx.tmp", static_cast<int>(getpid()),
                  counter.fetch_add(1), static_cast<unsigned long>(now.tv_nsec));
    return DirectoryOf(target) + "/." + base + suffix;
}

// Makes the directory entry of a rename durable; a file system that cannot sync a directory
// has nothing more to lose.
void SyncDirectory(const std::string& directory) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

}  // namespace

COutputFile::COutputFile() : m_buffer(*this), m_stream(&m_buffer) {}

COutputFile::~COutputFile() { RemoveTemporary(); }

void COutputFile::GuardStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        const int opened = open("/dev/null", (fd == 0 ? O_WRONLY : O_RDONLY));
        if (opened >= 0 && opened != fd) {
            dup2(opened, fd);
            close(opened);
        }
    }
}

bool COutputFile::Open(const std::string& path, TExisting existing, std::string* error) {
    m_path = path;
    m_refuseExisting = existing == TExisting::Refuse;
    const auto refuse = [&](const std::string& why) {
        *error = "cannot write " + Name() + ": " + why;
        return false;
    };
    if (path == "-") {
        m_standardOutput = true;
        m_fd = STDOUT_FILENO;
        return true;
    }
    if (path.empty()) return refuse("no file name given");

    std::string target = path;
    struct stat st {};
    bool exists = false;
    for (int step = 0;; ++step) {
        if (step > 40) return refuse(std::strerror(ELOOP));
        if (lstat(target.c_str(), &st) != 0) {
            if (errno != ENOENT) return refuse(std::strerror(errno));
            break;  // a new file (or a link's target that is not there yet)
        }
        if (m_refuseExisting) return refuse("it exists already, and is never replaced");
        if (S_ISLNK(st.st_mode)) {
            char link[4096];
            const ssize_t n = readlink(target.c_str(), link, sizeof link - 1);
            if (n < 0) return refuse(std::strerror(errno));
            const std::string next(link, static_cast<size_t>(n));
            target = next.front() == '/' ? next : DirectoryOf(target) + "/" + next;
            continue;
        }
        if (!S_ISREG(st.st_mode)) {
            return refuse(std::string("it is ") + KindOf(st.st_mode) +
                          ", not a regular file; name a file, or '-' for standard output");
        }
        exists = true;
        break;
    }
    m_target = target;

    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        m_temporary = TemporaryName(target);
        fd = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) {
        const int why = errno;
        m_temporary.clear();
        return refuse(std::string(std::strerror(why)) + " (in " +
                      QuotedText(DirectoryOf(target)) + ")");
    }
    m_fd = fd;
    if (exists) {
        // The replacement keeps what the user set on the file; an owner we may not give
        // (not root) stays ours.
        if (fchown(fd, st.st_uid, st.st_gid) != 0) {
            // not root: the new file is ours
        }
        if (fchmod(fd, st.st_mode & 07777) != 0) {
            const int why = errno;
            RemoveTemporary();
            return refuse(std::strerror(why));
        }
    }
    return true;
}

bool COutputFile::Write(std::string_view data) {
    m_stream.write(data.data(), static_cast<std::streamsize>(data.size()));
    return !Failed();
}

bool COutputFile::WriteAll(const char* data, size_t size) {
    if (m_errno != 0) return false;
    if (m_fd < 0) {
        m_errno = EBADF;
        return false;
    }
    while (size > 0) {
        const ssize_t n = write(m_fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            m_errno = n < 0 ? errno : EIO;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool COutputFile::Commit(std::string* error) {
    m_stream.flush();
    const auto fail = [&](int why) {
        if (m_errno == 0) m_errno = why;
        *error = FailureMessage();
        RemoveTemporary();
        return false;
    };
    if (m_errno != 0) return fail(m_errno);
    if (m_standardOutput) {
        struct stat st {};
        // Standard output redirected to a file: its data must reach the disk to count as
        // written (a file system may report a full disk only then).
        if (fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode) && fsync(m_fd) != 0 &&
            errno != EINVAL && errno != EROFS) {
            return fail(errno);
        }
        return true;
    }
    if (m_fd < 0 || m_temporary.empty()) return fail(EBADF);  // not open, or done
    if (fsync(m_fd) != 0) return fail(errno);
    const int fd = std::exchange(m_fd, -1);
    if (close(fd) != 0) return fail(errno);
    if (m_refuseExisting) {
        // Whatever appeared under the name meanwhile stays.
        if (renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_target.c_str(),
                      RENAME_NOREPLACE) != 0) {
            if (errno != EINVAL && errno != ENOSYS) {
                return fail(errno);
            }
            // A file system without it: a hard link also never replaces.
            if (link(m_temporary.c_str(), m_target.c_str()) != 0) return fail(errno);
            unlink(m_temporary.c_str());
        }
    } else if (std::rename(m_temporary.c_str(), m_target.c_str()) != 0) {
        return fail(errno);
    }
    m_temporary.clear();
    SyncDirectory(DirectoryOf(m_target));
    return true;
}

void COutputFile::Discard() {
    m_stream.flush();
    RemoveTemporary();
    if (m_errno == 0) m_errno = ECANCELED;
}

void COutputFile::RemoveTemporary() {
    if (m_fd >= 0 && !m_standardOutput) close(m_fd);
    if (!m_standardOutput) m_fd = -1;
    if (!m_temporary.empty()) unlink(m_temporary.c_str());
    m_temporary.clear();
}

std::string COutputFile::Name() const {
    return m_standardOutput ? "standard output" : QuotedText(m_path);
}

std::string COutputFile::FailureMessage() const {
    return "cannot write " + Name() + ": " + std::strerror(m_errno != 0 ? m_errno : EIO);
}

bool COutputFile::CBuffer::Drain() {
    const size_t size = static_cast<size_t>(pptr() - pbase());
    setp(m_data, m_data + sizeof m_data);
    return size == 0 || m_owner.WriteAll(m_data, size);
}

COutputFile::CBuffer::int_type COutputFile::CBuffer::overflow(int_type c) {
    if (!Drain()) return traits_type::eof();
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
}

int COutputFile::CBuffer::sync() { return Drain() ? 0 : -1; }

std::streamsize COutputFile::CBuffer::xsputn(const char* s, std::streamsize n) {
    const auto size = static_cast<size_t>(n);
    if (size <= static_cast<size_t>(epptr() - pptr())) {
        std::memcpy(pptr(), s, size);
        pbump(static_cast<int>(n));
        return n;
    }
    if (!Drain() || !m_owner.WriteAll(s, size)) return 0;
    return n;
}
