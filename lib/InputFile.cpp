#include "InputFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

bool ReadInputFile(const std::string& path, size_t maxBytes, std::string* data, std::string* why) {
    return ReadInputFileUnlessStopped(path, maxBytes, data, why, {}) == 0;
}

int ReadInputFileUnlessStopped(const std::string& path, size_t maxBytes, std::string* data,
                               std::string* why, const TInputStop& stop) {
    data->clear();
    const bool standardInput = path == "-";
    // Not blocking: opening a FIFO does not wait for its writer (the reads below do, in steps).
    const int fd = standardInput ? STDIN_FILENO
                                 : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const auto done = [&](int result) {
        if (fd >= 0 && !standardInput) close(fd);
        if (result != 0) data->clear();
        return result;
    };
    const auto fail = [&](std::string cause) {
        *why = std::move(cause);
        return done(-1);
    };
    if (fd < 0) return fail(std::strerror(errno));
    struct stat st {};
    if (fstat(fd, &st) != 0) return fail(std::strerror(errno));
    if (S_ISDIR(st.st_mode)) return fail("it is a directory; name a file in it");
    char chunk[65536];
    for (;;) {
        // Readable first (data, end of file, or a FIFO's writer that came and went): a FIFO
        // nobody has opened for writing yet would read as end of file.
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, stop ? kInputStepMillis : -1);
        if (ready < 0 && errno != EINTR) return fail(std::strerror(errno));
        if (ready <= 0) {
            if (const int signal = stop ? stop() : 0) return done(signal);
            continue;
        }
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < 0) return fail(std::strerror(errno));
        if (n == 0) break;
        // One byte past the limit is enough to know: the size a file claims is not trusted.
        if (data->size() + static_cast<size_t>(n) > maxBytes) {
            return fail("larger than " + std::to_string(maxBytes) + " bytes");
        }
        data->append(chunk, static_cast<size_t>(n));
    }
    return done(0);
}
