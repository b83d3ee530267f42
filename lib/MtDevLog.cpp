#include "MtDevLog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::mutex g_logMutex;
TLogSink g_sink;

void DefaultSink(TLogChannel channel, std::string_view line) {
    FILE* out = channel == TLogChannel::System ? stderr : stdout;
    std::fwrite(line.data(), 1, line.size(), out);
    std::fputc('\n', out);
    std::fflush(out);
}

void Emit(TLogChannel channel, const char* format, va_list args) {
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
    } else {
        DefaultSink(channel, line);
    }
}

}  // namespace

TLogSink TSetLogSink(TLogSink sink) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    TLogSink previous = std::move(g_sink);
    g_sink = std::move(sink);
    return previous;
}

void TLogSystem(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(TLogChannel::System, format, args);
    va_end(args);
}

void TLogStdout(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(TLogChannel::Stdout, format, args);
    va_end(args);
}
