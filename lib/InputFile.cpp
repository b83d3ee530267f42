#include "InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

bool ReadInputFile(const std::string& path, size_t maxBytes, std::string* data, std::string* why) {
    data->clear();
    const bool standardInput = path == "-";
    const int fd = standardInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const auto fail = [&](std::string cause) {
        *why = std::move(cause);
        if (fd >= 0 && !standardInput) close(fd);
        data->clear();
        return false;
    };
    if (fd < 0) return fail(std::strerror(errno));
    struct stat st {};
    if (fstat(fd, &st) != 0) return fail(std::strerror(errno));
    if (S_ISDIR(st.st_mode)) return fail("it is a directory; name a file in it");
    char chunk[65536];
    for (;;) {
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail(std::strerror(errno));
        if (n == 0) break;
        // One byte past the limit is enough to know: the size a file claims is not trusted.
        if (data->size() + static_cast<size_t>(n) > maxBytes) {
            return fail("larger than " + std::to_string(maxBytes) + " bytes");
        }
        data->append(chunk, static_cast<size_t>(n));
    }
    if (!standardInput) close(fd);
    return true;
}
