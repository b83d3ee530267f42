#include "SettingsModel.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "DevConfigJson.h"
#include "InputFile.h"
#include "Present.h"
#include "QuotedText.h"

namespace {

bool SameShown(const TFrameEntry& a, const TFrameEntry& b) {
    return a.node == b.node && a.state == b.state && a.product == b.product &&
           a.serial == b.serial && a.configSummary == b.configSummary &&
           a.logicalWidth == b.logicalWidth && a.logicalHeight == b.logicalHeight &&
           a.rawWidth == b.rawWidth && a.rawHeight == b.rawHeight &&
           a.touchscreens == b.touchscreens;
}

}  // namespace

CFrameListModel::TChange CFrameListModel::Update(std::vector<TFrameEntry> frames) {
    std::sort(frames.begin(), frames.end(),
              [](const TFrameEntry& a, const TFrameEntry& b) { return a.number < b.number; });
    TChange change;
    for (const TFrameEntry& f : frames) {
        const TFrameEntry* before = Find(f.number);
        if (before == nullptr) {
            change.added.push_back(f.number);
        } else if (!SameShown(*before, f)) {
            change.changed.push_back(f.number);
        }
    }
    for (const TFrameEntry& f : m_frames) {
        const bool kept = std::any_of(frames.begin(), frames.end(),
                                      [&](const TFrameEntry& n) { return n.number == f.number; });
        if (!kept) change.removed.push_back(f.number);
    }
    m_frames = std::move(frames);
    return change;
}

const TFrameEntry* CFrameListModel::Find(int number) const {
    for (const TFrameEntry& f : m_frames) {
        if (f.number == number) return &f;
    }
    return nullptr;
}

std::string FrameRow(const TFrameEntry& f) {
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04x:%04x", f.vendorId, f.productId);
    std::string row = std::to_string(f.number) + "  " + EscapedText(f.product, 64);
    if (!f.serial.empty()) row += " (serial " + EscapedText(f.serial, 64) + ")";
    row += "  " + std::string(ids) + "  " + EscapedText(f.node, 120) + "  " + EscapedText(f.state, 20);
    if (!f.configSummary.empty()) row += "  " + EscapedText(f.configSummary, 80);
    return row;
}

std::vector<TBackupEntry> ListBackups(const std::string& directory) {
    std::vector<TBackupEntry> found;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return found;
    while (const dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        int frame = 0, consumed = 0;
        if (name.size() < 6 || name.compare(name.size() - 5, 5, ".json") != 0 ||
            std::sscanf(name.c_str(), "frame%d-%*8[0-9]-%*6[0-9]%n", &frame, &consumed) != 1 ||
            consumed == 0 || frame < 1) {
            continue;
        }
        struct stat st {};
        const std::string path = directory + "/" + name;
        if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        found.push_back({path, name, frame, st.st_mtime});
    }
    closedir(dir);
    std::sort(found.begin(), found.end(), [](const TBackupEntry& a, const TBackupEntry& b) {
        return a.modified != b.modified ? a.modified > b.modified : a.name > b.name;
    });
    if (found.size() > kMaxListedBackups) found.resize(kMaxListedBackups);
    return found;
}

std::unique_ptr<_HARDWARE_DEV_CONFIG> ReadSavedConfig(const std::string& path, std::string* error) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        *error = "cannot read " + QuotedText(path) + ": it is not a regular file";
        return nullptr;
    }
    std::string text, why;
    if (!ReadInputFile(path, kDevConfigJsonMaxBytes, &text, &why)) {
        *error = "cannot read " + QuotedText(path) + ": " + why;
        return nullptr;
    }
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    if (!DevConfigFromJson(text, config.get(), error)) {
        *error = QuotedText(path) + " is not a saved configuration: " + *error;
        return nullptr;
    }
    return config;
}

std::string DiagnosticsReport(const std::string& version, const TFrameEntry& frame,
                              const std::vector<uint8_t>& info, const std::vector<uint8_t>& status,
                              const _HARDWARE_DEV_CONFIG& config) {
    return "irframe-settings " + version + "\n\n" + FrameDetails(frame) + "\ninformation block (" +
           std::to_string(info.size()) + " bytes)\n" + HexDump(info) + "\nstatus (" +
           std::to_string(status.size()) + " bytes)\n" + HexDump(status) + "\nconfiguration: " +
           DevConfigSummary(config) + "\n\n" + ConfigTables(config);
}

TViewPoint MonitorTarget(int index, int count) {
    return {(index + 0.5) / std::max(count, 1), 0.5};
}

std::optional<int> TouchedMonitor(TViewPoint onFrame, int count) {
    if (count < 1 || onFrame.x < 0 || onFrame.x > 1 || onFrame.y < 0.2 || onFrame.y > 0.8) {
        return std::nullopt;
    }
    const int index = std::min(count - 1, static_cast<int>(onFrame.x * count));
    const double spacing = 1.0 / count;
    if (std::abs(onFrame.x - MonitorTarget(index, count).x) > spacing / 4 + 1e-9) return std::nullopt;
    return index;
}
