#include "Commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "DevConfigJson.h"
#include "GestureRecorder.h"
#include "GestureScript.h"
#include "InputFile.h"
#include "OutputFile.h"
#include "QuotedText.h"
#include "Present.h"
#include "StopSignalWaits.h"

namespace {

struct TOpened {
    TFrameEntry description;
    std::unique_ptr<IFrame> frame;
};

TOpened OpenFrame(TToolContext& ctx) {
    const std::vector<TFrameEntry> frames = ctx.transport.List();
    TOpened o;
    o.description = PickFrame(frames, ctx.frame);
    o.frame = ctx.transport.Open(o.description);
    return o;
}

std::string ReadFile(TToolContext& ctx, const std::string& path, size_t limit, const char* what) {
    std::string data, why;
    struct stat st {};
    if (path != "-" && stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode)) {
        ctx.err << "irframectl: " << what << " " << QuotedText(path)
                << " is a FIFO: waiting for a writer" << std::endl;
    }
    const int result = ReadInputFileUnlessStopped(path, limit, &data, &why, ctx.stopSignal);
    if (result < 0) {
        throw CToolError(kCtlBadInput,
                         "cannot read " + std::string(what) + " " + QuotedText(path) + ": " + why);
    }
    if (result > 0) {
        throw CToolError(kCtlCancelled, SignalName(result) + " while reading " + what + " " +
                                            QuotedText(path) + ": stopping");
    }
    return data;
}

// Checked before any work: a name that cannot be written fails before the frame is touched.
std::unique_ptr<COutputFile> OpenOutput(const std::string& path,
                                        COutputFile::TExisting existing = COutputFile::TExisting::Replace) {
    auto out = std::make_unique<COutputFile>();
    std::string error;
    if (!out->Open(path, existing, &error)) throw CToolError(kCtlFailure, error);
    return out;
}

void Commit(COutputFile& out) {
    std::string error;
    if (!out.Commit(&error)) throw CToolError(kCtlFailure, error);
}

TTransferHooks Hooks(TToolContext& ctx, CProgressDisplay& display) {
    TTransferHooks hooks;
    hooks.progress = [&display](uint32_t done, uint32_t total) { display.Update(done, total); };
    hooks.cancelRequested = ctx.interrupted;
    return hooks;
}

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string Timestamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

// Asks on `answers`; true for y or yes.
bool Confirm(TToolContext& ctx, std::istream& answers, const std::string& question) {
    ctx.err << question << " [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(answers, answer)) return false;
    return answer == "y" || answer == "Y" || answer == "yes" || answer == "YES";
}

// A frame that played its emulated script to the end left on purpose.
bool Simulated(const TFrameEntry& d) {
    return d.node.rfind("simulated:", 0) == 0;
}

// On standard error, so that a script (or a test) knows every later frame is seen.
void Listening(TToolContext& ctx, const TFrameEntry& d, const char* what) {
    ctx.err << what << " frame " << d.number << " (" << d.node << "); Ctrl-C ends\n" << std::flush;
}

int StreamEndStatus(TToolContext& ctx, const TFrameEntry& d, TStreamEnd end) {
    switch (end) {
        case TStreamEnd::FrameGone:
            if (Simulated(d)) return kCtlOk;
            ctx.err << "irframectl: frame " << d.number << " (" << d.node << ") went away\n";
            return kCtlFailure;
        case TStreamEnd::DriverGone:
            ctx.err << "irframectl: the driver left the session bus\n";
            return kCtlFailure;
        default:
            return kCtlOk;
    }
}

}  // namespace

CProgressDisplay::CProgressDisplay(std::ostream& err, std::string label, bool terminal)
    : m_err(err), m_label(std::move(label)), m_terminal(terminal) {}

void CProgressDisplay::Update(uint32_t done, uint32_t total) {
    if (total == 0) return;
    const int percent = static_cast<int>(std::min<uint64_t>(100, uint64_t{done} * 100 / total));
    if (m_terminal) {
        constexpr int kWidth = 30;
        const int filled = percent * kWidth / 100;
        m_err << "\r" << m_label << " [" << std::string(static_cast<size_t>(filled), '#')
              << std::string(static_cast<size_t>(kWidth - filled), '.') << "] ";
        char tail[64];
        std::snprintf(tail, sizeof tail, "%3d%%  %u/%u bytes", percent, done, total);
        m_err << tail << std::flush;
        m_drawn = true;
    } else if (percent != m_lastPercent) {
        m_err << m_label << ": " << percent << "%\n" << std::flush;
    }
    m_lastPercent = percent;
}

void CProgressDisplay::Finish() {
    if (m_terminal && m_drawn) m_err << "\n" << std::flush;
    m_drawn = false;
}

std::string BackupPathFor(const std::string& file, const std::string& stamp) {
    std::string stem = file;
    if (stem.size() > 5 && stem.compare(stem.size() - 5, 5, ".json") == 0) {
        stem.resize(stem.size() - 5);
    }
    std::string path = stem + ".replaced-" + stamp + ".json";
    for (int n = 2; Exists(path); ++n) {
        path = stem + ".replaced-" + stamp + "-" + std::to_string(n) + ".json";
    }
    return path;
}

int CmdList(TToolContext& ctx) {
    const std::vector<TFrameEntry> frames = ctx.transport.List();
    if (frames.empty()) {
        ctx.err << "irframectl: no touch frame found (" << ctx.transport.Name() << ")\n";
        return kCtlNoFrame;
    }
    ctx.out << FrameTable(frames);
    return kCtlOk;
}

int CmdInfo(TToolContext& ctx) {
    TOpened o = OpenFrame(ctx);
    ctx.out << FrameDetails(o.frame->Describe());
    const std::vector<uint8_t> info = o.frame->ReadInfo();
    ctx.out << "information block (" << info.size() << " bytes)\n" << HexDump(info);
    return kCtlOk;
}

int CmdStatus(TToolContext& ctx) {
    TOpened o = OpenFrame(ctx);
    const std::vector<uint8_t> status = o.frame->ReadStatus();
    ctx.out << "status of frame " << o.description.number << " (" << status.size() << " bytes)\n"
            << HexDump(status);
    return kCtlOk;
}

int CmdConfigShow(TToolContext& ctx) {
    TOpened o = OpenFrame(ctx);
    const auto config = o.frame->ReadConfig();
    ctx.out << "configuration of frame " << o.description.number << " (" << o.description.node
            << "): " << DevConfigSummary(*config) << "\n\n"
            << ConfigTables(*config);
    return kCtlOk;
}

int CmdConfigDump(TToolContext& ctx, const std::string& file) {
    if (file == "-") {
        TOpened o = OpenFrame(ctx);
        ctx.out << DevConfigToJson(*o.frame->ReadConfig());
        return kCtlOk;
    }
    const std::unique_ptr<COutputFile> out = OpenOutput(file);
    TOpened o = OpenFrame(ctx);
    const auto config = o.frame->ReadConfig();
    out->Write(DevConfigToJson(*config));
    Commit(*out);
    ctx.err << "configuration of frame " << o.description.number << " written to "
            << EscapedText(file) << " (" << DevConfigSummary(*config) << ")\n";
    return kCtlOk;
}

int CmdConfigRestore(TToolContext& ctx, const TRestoreOptions& options) {
    // Everything about the file is settled before the frame is touched. The backup goes next
    // to FILE by default, which only a file in a directory has.
    struct stat st {};
    if (options.backup.empty() &&
        (options.file == "-" || (stat(options.file.c_str(), &st) == 0 && !S_ISREG(st.st_mode) &&
                                 !S_ISDIR(st.st_mode)))) {
        throw CToolError(kCtlUsage, QuotedText(options.file) +
                                        " is not a file with a place beside it for the "
                                        "replaced configuration: name one with --backup PATH");
    }
    const std::string text = ReadFile(ctx, options.file, kDevConfigJsonMaxBytes, "a configuration");
    auto wanted = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::string error;
    if (!DevConfigFromJson(text, wanted.get(), &error)) {
        throw CToolError(kCtlBadInput,
                         EscapedText(options.file) + ": " + error + " (nothing was written)");
    }
    // The backup's name is taken now: a name that exists is never replaced.
    const std::string backup =
        options.backup.empty() ? BackupPathFor(options.file, Timestamp()) : options.backup;
    const std::unique_ptr<COutputFile> backupFile = OpenOutput(backup, COutputFile::TExisting::Refuse);
    TOpened o = OpenFrame(ctx);
    const auto current = o.frame->ReadConfig();
    const std::vector<std::string> changes = DevConfigDifferences(*current, *wanted);
    if (changes.empty()) {
        ctx.out << "frame " << o.description.number
                << " already holds this configuration; nothing written\n";
        return kCtlOk;
    }
    ctx.out << "changes to frame " << o.description.number << " (" << o.description.node
            << "):\n";
    for (const std::string& line : changes) ctx.out << "  " << line << "\n";
    ctx.out << std::flush;
    if (!options.yes && options.answers == nullptr) {
        throw CToolError(kCtlUsage, "nothing was written: no terminal to ask on; add --yes to "
                                     "write without asking");
    }
    if (!options.yes &&
        !Confirm(ctx, *options.answers,
                 "write this configuration to frame " + std::to_string(o.description.number) + "?")) {
        ctx.err << "not written\n";
        return kCtlCancelled;
    }

    backupFile->Write(DevConfigToJson(*current));
    Commit(*backupFile);
    ctx.err << "the replaced configuration is saved in " << EscapedText(backup) << "\n";

    const auto readBack = o.frame->WriteConfig(*wanted);
    const std::vector<std::string> mismatch = DevConfigDifferences(*wanted, *readBack);
    if (!mismatch.empty()) {
        ctx.err << "irframectl: frame " << o.description.number
                << " holds something else than was written:\n";
        for (const std::string& line : mismatch) ctx.err << "  " << line << "\n";
        ctx.err << "restore the saved configuration with: irframectl config restore "
                << EscapedText(backup) << "\n";
        return kCtlFailure;
    }
    ctx.out << "written and read back: frame " << o.description.number << " now holds "
            << DevConfigSummary(*readBack) << "\n";
    return kCtlOk;
}

int CmdMonitor(TToolContext& ctx, bool json) {
    TOpened o = OpenFrame(ctx);
    const auto config = o.frame->ReadConfig();
    bool first = true;
    int64_t origin = 0;
    const TStreamEnd end = o.frame->StreamContacts(
        [&](const TMonitoredFrame& frame) {
            if (frame.contacts.empty()) return true;
            if (first) origin = frame.timeStamp;
            first = false;
            for (const TMonitoredContact& c : frame.contacts) {
                ctx.out << (json ? ContactJson(o.description.number, c, frame.timeStamp, *config)
                                 : ContactLine(c, frame.timeStamp, origin, *config))
                        << "\n";
            }
            ctx.out << std::flush;
            return ctx.out.good();  // nobody reads any more: the end is reported by the caller
        },
        ctx.interrupted, [&] { Listening(ctx, o.description, "contacts of"); });
    return StreamEndStatus(ctx, o.description, end);
}

int CmdRecord(TToolContext& ctx, const std::string& file) {
    const std::unique_ptr<COutputFile> output = OpenOutput(file);
    std::ostream& out = output->Stream();
    TOpened o = OpenFrame(ctx);
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04X:%04X", o.description.vendorId, o.description.productId);
    CGestureRecorder recorder(
        out, "recorded by irframectl from frame " + std::to_string(o.description.number) + " (" +
                 o.description.node + ", " + ids + ")\n" +
                 "positions are calibrated output units; play with: irframed --simulate FILE");
    const TStreamEnd end = o.frame->StreamContacts(
        [&](const TMonitoredFrame& frame) {
            recorder.Add(frame);
            if (recorder.Frames() < SCRIPT_MAX_FRAMES) return true;
            ctx.err << "the script holds " << SCRIPT_MAX_FRAMES
                    << " frames, as many as a script may: recording ends\n";
            return false;
        },
        ctx.interrupted, [&] { Listening(ctx, o.description, ("recording " + EscapedText(file) + " from").c_str()); });
    recorder.Finish();
    Commit(*output);
    ctx.err << "recorded " << recorder.Frames() << " frames (" << recorder.FramesWithContacts()
            << " with contacts) to " << EscapedText(file) << "\n";
    return StreamEndStatus(ctx, o.description, end);
}

int CmdScanPatternGet(TToolContext& ctx, const std::string& file) {
    const std::unique_ptr<COutputFile> out =
        file == "-" ? nullptr : OpenOutput(file);
    TOpened o = OpenFrame(ctx);
    CProgressDisplay display(ctx.err, "scan pattern", ctx.terminal);
    std::vector<uint8_t> pattern;
    try {
        pattern = o.frame->ReadScanPattern(Hooks(ctx, display));
    } catch (...) {
        display.Finish();
        throw;
    }
    display.Finish();
    const std::string_view bytes(reinterpret_cast<const char*>(pattern.data()), pattern.size());
    if (!out) {
        ctx.out << bytes;
        return kCtlOk;
    }
    out->Write(bytes);
    Commit(*out);
    ctx.err << "scan pattern of frame " << o.description.number << " (" << pattern.size()
            << " bytes) written to " << EscapedText(file) << "\n";
    return kCtlOk;
}

namespace {

using TWrite = void (IFrame::*)(const std::vector<uint8_t>&, const TTransferHooks&);

int Upload(TToolContext& ctx, const std::vector<uint8_t>& data, const char* what, TWrite write) {
    TOpened o = OpenFrame(ctx);
    CProgressDisplay display(ctx.err, what, ctx.terminal);
    try {
        (o.frame.get()->*write)(data, Hooks(ctx, display));
    } catch (...) {
        display.Finish();
        throw;
    }
    display.Finish();
    ctx.err << what << " (" << data.size() << " bytes) written to frame " << o.description.number
            << "\n";
    return kCtlOk;
}

std::vector<uint8_t> Bytes(const std::string& data) {
    return {data.begin(), data.end()};
}

}  // namespace

int CmdScanPatternSet(TToolContext& ctx, const std::string& file) {
    const std::vector<uint8_t> data = Bytes(ReadFile(ctx, file, kMaxScanPatternBytes, "a scan pattern"));
    // A pattern starts with its own size at bytes 2..5: the frame reads it from there.
    const uint32_t declared = data.size() < 6 ? 0
                                              : static_cast<uint32_t>(data[2]) | data[3] << 8 |
                                                    data[4] << 16 | static_cast<uint32_t>(data[5]) << 24;
    if (declared != data.size()) {
        throw CToolError(kCtlBadInput, QuotedText(file) + " is not a scan pattern: its bytes 2..5 say " +
                                            std::to_string(declared) + " bytes, the file has " +
                                            std::to_string(data.size()));
    }
    return Upload(ctx, data, "scan pattern", &IFrame::WriteScanPattern);
}

int CmdTouchSystemFileSet(TToolContext& ctx, const std::string& file) {
    const std::vector<uint8_t> data =
        Bytes(ReadFile(ctx, file, kMaxTouchSystemFileBytes, "a touch-system file"));
    if (data.size() < MTDEV_TOUCH_SYSTEM_FILE_MIN_BYTES) {
        throw CToolError(kCtlBadInput, QuotedText(file) + " has " + std::to_string(data.size()) +
                                            " bytes; a touch-system file has at least " +
                                            std::to_string(MTDEV_TOUCH_SYSTEM_FILE_MIN_BYTES));
    }
    return Upload(ctx, data, "touch-system file", &IFrame::WriteTouchSystemFile);
}
