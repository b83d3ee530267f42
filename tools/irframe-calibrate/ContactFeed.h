// The contacts of a frame, streamed on a thread of their own (the bus call blocks) and handed to
// the GTK main loop in order. Shared by the calibrator and the settings window.
#pragma once

#include <glibmm/dispatcher.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "FrameAccess.h"

// `frame` is used only on the feed's thread while it runs: give it a bus connection of its own
// when other threads use the bus meanwhile.
class CContactFeed {
public:
    explicit CContactFeed(IFrame& frame) : m_frame(frame) {}
    ~CContactFeed() { Stop(); }

    Glib::Dispatcher& Arrived() { return m_arrived; }

    // `started` runs on the feed's thread once the contacts flow.
    void Start(std::function<void()> started) {
        m_stop = false;
        m_thread = std::thread([this, started = std::move(started)] {
            TStreamEnd end = TStreamEnd::DriverGone;
            std::string error;
            try {
                end = m_frame.StreamContacts(
                    [this](const TMonitoredFrame& f) {
                        Push(f);
                        return true;
                    },
                    [this] { return m_stop.load(); }, started);
            } catch (const CToolError& e) {
                error = e.what();
            }
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_end = end;
            m_error = error;
            m_arrived.emit();
        });
    }

    void Stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_frames.clear();
        m_end.reset();
    }

    std::deque<TMonitoredFrame> Take() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_frames, {});
    }

    // How the stream ended while it was not asked to stop, and the error if one ended it.
    std::optional<TStreamEnd> Ended(std::string* error) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stop) return std::nullopt;
        *error = m_error;
        return m_end;
    }

private:
    void Push(const TMonitoredFrame& f) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_frames.push_back(f);
        }
        m_arrived.emit();
    }

    IFrame& m_frame;
    Glib::Dispatcher m_arrived;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;  // guards the members below
    std::deque<TMonitoredFrame> m_frames;
    std::optional<TStreamEnd> m_end;
    std::string m_error;
};

