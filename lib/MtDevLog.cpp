#include "MtDevLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::mutex g_logMutex;
TLogSink g_sink;
// Read without the lock on every line, so that a dropped debug line costs no formatting.
std::atomic<bool> g_hasSink{false};
std::atomic<int> g_threshold{static_cast<int>(TLogLevel::Info)};
std::atomic<bool> g_journalPrefix{false};
std::string g_programPrefix;  // under g_logMutex

void DefaultWriter(TLogLevel level, std::string_view line) {
    if (g_journalPrefix.load(std::memory_order_relaxed)) {
        std::fprintf(stderr, "<%d>", static_cast<int>(level));
    }
    std::fputs(g_programPrefix.c_str(), stderr);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void Emit(TLogLevel level, TLogChannel channel, const char* format, va_list args) {
    if (!TLogEnabled(level)) return;
    char small[256];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) return;
    std::string line;
    if (static_cast<size_t>(needed) < sizeof small) {
        line.assign(small, static_cast<size_t>(needed));
    } else {
        line.resize(static_cast<size_t>(needed) + 1);
        std::vsnprintf(line.data(), line.size(), format, args);
        line.resize(static_cast<size_t>(needed));
    }
    while (!line.empty() && line.back() == '\n') line.pop_back();

    std::lock_guard<std::mutex> lock(g_logMutex);
    if (g_sink) {
        g_sink(channel, line);
    } else if (static_cast<int>(level) <= g_threshold.load(std::memory_order_relaxed)) {
        DefaultWriter(level, line);
    }
}

}  // namespace

TLogSink TSetLogSink(TLogSink sink) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    TLogSink previous = std::move(g_sink);
    g_sink = std::move(sink);
    g_hasSink.store(static_cast<bool>(g_sink));
    return previous;
}

void TSetLogOutput(TLogLevel threshold, bool journalPrefix) {
    g_threshold.store(static_cast<int>(threshold));
    g_journalPrefix.store(journalPrefix);
}

void TSetLogProgramName(std::string_view program) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_programPrefix = program.empty() ? std::string() : std::string(program) + ": ";
}

TLogLevel TLogThreshold() {
    return static_cast<TLogLevel>(g_threshold.load());
}

bool TLogEnabled(TLogLevel level) {
    return g_hasSink.load(std::memory_order_relaxed) ||
           static_cast<int>(level) <= g_threshold.load(std::memory_order_relaxed);
}

std::optional<TLogLevel> ParseLogLevel(std::string_view name) {
    if (name == "error" || name == "3") return TLogLevel::Error;
    if (name == "warning" || name == "warn" || name == "4") return TLogLevel::Warning;
    if (name == "info" || name == "6") return TLogLevel::Info;
    if (name == "debug" || name == "7") return TLogLevel::Debug;
    return std::nullopt;
}

const char* LogLevelName(TLogLevel level) {
    switch (level) {
        case TLogLevel::Error: return "error";
        case TLogLevel::Warning: return "warning";
        case TLogLevel::Info: return "info";
        case TLogLevel::Debug: return "debug";
    }
    return "info";
}

void TLog(TLogLevel level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(level, TLogChannel::System, format, args);
    va_end(args);
}

void TLogSystem(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(TLogLevel::Debug, TLogChannel::System, format, args);
    va_end(args);
}

void TLogStdout(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(TLogLevel::Debug, TLogChannel::Stdout, format, args);
    va_end(args);
}
