#include "BackupFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "FrameAccess.h"

namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
    throw CToolError(kCtlFailure, "cannot save the backup: " + what + ": " + std::strerror(error));
}

void MakeDirectories(const std::string& path) {
    for (size_t at = 0; at != std::string::npos;) {
        at = path.find('/', at + 1);
        const std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) Fail(part, errno);
    }
}

}  // namespace

std::string BackupDirectory() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && *state == '/') return std::string(state) + "/irframe/backups";
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr && *home == '/' ? home : "/tmp") +
           "/.local/state/irframe/backups";
}

std::string SaveBackup(const std::string& directory, int frame, const std::string& text) {
    MakeDirectories(directory);
    // Written whole under a private name first, then linked to its name: link() never replaces
    // a file, and a reader never sees half of one.
    std::string temporary = directory + "/.backup-XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) Fail(directory, errno);
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int e = errno;
            close(fd);
            unlink(temporary.c_str());
            Fail(temporary, e);
        }
        done += static_cast<size_t>(n);
    }
    const bool synced = fsync(fd) == 0;
    const int syncError = errno;
    close(fd);
    if (!synced) {
        unlink(temporary.c_str());
        Fail(temporary, syncError);
    }
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    const std::string stem = directory + "/frame" + std::to_string(frame) + "-" + stamp;
    for (int n = 1; n < 1000; ++n) {
        const std::string path = stem + (n == 1 ? "" : "-" + std::to_string(n)) + ".json";
        if (link(temporary.c_str(), path.c_str()) == 0) {
            unlink(temporary.c_str());
            return path;
        }
        if (errno != EEXIST) {
            const int e = errno;
            unlink(temporary.c_str());
            Fail(path, e);
        }
    }
    unlink(temporary.c_str());
    Fail(stem + "*.json", EEXIST);
}
