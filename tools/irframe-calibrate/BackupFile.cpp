#include "BackupFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "FrameAccess.h"
#include "OutputFile.h"

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
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    const std::string stem = directory + "/frame" + std::to_string(frame) + "-" + stamp;
    for (int n = 1; n < 1000; ++n) {
        const std::string path = stem + (n == 1 ? "" : "-" + std::to_string(n)) + ".json";
        struct stat taken {};
        if (lstat(path.c_str(), &taken) == 0) continue;
        // Never over an existing file, and never half written.
        COutputFile out;
        std::string error;
        if (!out.Open(path, COutputFile::TExisting::Refuse, &error)) {
            throw CToolError(kCtlFailure, error);
        }
        out.Write(text);
        if (out.Commit(&error)) return path;
        if (out.Error() != EEXIST) throw CToolError(kCtlFailure, error);
        // Another backup took the name meanwhile: the next one.
    }
    Fail(stem + "*.json", EEXIST);
}
