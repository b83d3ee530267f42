// TUIO 1.1 output of one touch frame: a contact listener that sends the frame's contacts as
// /tuio/2Dcur cursors over OSC/UDP, each calibration area to its own target.
//
// Positions: the output keeps its own calibration of the frame (built from the same
// configuration and geometry, fed the same contacts), and takes each contact's position as
// fractions 0..1 of its area (GetTuioCoords), turned like the area's HID output. Contacts on a
// button panel are keys, not cursors, and contacts outside every area that the frame drops
// (cell 255/255) are not sent either. A frame without usable areas sends every contact as a
// fraction of the whole frame.
//
// Targets, first match: the area's entry in `areaTargets`, `target`, the area's own
// netAddress/port from the frame (the record's for a frame without areas). A target from the
// frame that is not on this machine is used only with `allowDeviceTargets`. An area whose target
// cannot be used gets one warning when the frame starts and sends nothing; the others go on.
// Areas with the same target share one stream.
//
// Nothing is thrown out of the listener calls; a failure stops this output with a warning.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CCalibrateSystem.h"
#include "ContactStream.h"
#include "TuioSettings.h"
#include "TuioStream.h"
#include "TuioUdpSocket.h"

// The target an area sends to, or why it has none. `area` -1 stands for a frame without areas
// (the record's target).
struct TTuioAreaTarget {
    std::optional<TTuioTarget> target;
    std::string problem;  // set when target is not
};
TTuioAreaTarget ResolveTuioAreaTarget(const TTuioSettings& settings, int area,
                                      uint32_t frameAddress, uint16_t framePort);

// This machine's name for the `source` message ("localhost" when it has none).
std::string TuioHostName();

class CTuioOutput final : public IContactListener {
public:
    // `sessions` numbers the cursors of every output of a run; it must outlive this one.
    CTuioOutput(const TTuioSettings& settings, std::atomic<int32_t>& sessions,
                TTuioSocketFactory open, std::string hostName);
    ~CTuioOutput() override;

    void OnFrameReady(const TContactSource& source) override;
    void OnContacts(const TContactFrame& frame) override;
    void OnFrameEnd(int device) override;

    // Read access for tests: the streams opened for the current frame, by target.
    std::vector<TTuioTarget> Targets() const;

private:
    struct TOut;
    struct TRoute {
        const _CAL_COORDINATE_INFO* info = nullptr;  // null: the frame without areas
        int stream = -1;                             // -1: nothing is sent
        uint8_t rotation = 0;
    };

    void Ready(const TContactSource& source);
    void Contacts(const TContactFrame& frame);
    void End();
    void Warn(const std::string& text) const;
    int StreamFor(const TTuioTarget& target, const std::string& areaName);
    const TRoute* RouteOf(const _CAL_COORDINATE_INFO* info) const;

    TTuioSettings m_settings;
    std::atomic<int32_t>& m_sessions;
    TTuioSocketFactory m_open;
    std::string m_hostName;

    bool m_ready = false;
    int m_device = 0;
    std::string m_name;  // the frame's, for messages
    CCalibrateSystem m_calibration;
    std::vector<TRoute> m_routes;
    std::vector<std::unique_ptr<TOut>> m_streams;
    std::vector<_HARDWARE_SDK_POINT> m_points;  // this frame's contacts, re-calibrated here
};

// The TUIO outputs of a run: one listener per frame number, kept for the run, all numbering
// their cursors from one counter.
class CTuioOutputs {
public:
    explicit CTuioOutputs(TTuioSettings settings, TTuioSocketFactory open = OpenTuioUdpSocket,
                          std::string hostName = TuioHostName());

    // The listener of frame `device`; called on the main thread (locked all the same).
    IContactListener* ForDevice(int device);

private:
    TTuioSettings m_settings;
    TTuioSocketFactory m_open;
    std::string m_hostName;
    std::atomic<int32_t> m_sessions{0};
    std::mutex m_mutex;
    std::map<int, std::unique_ptr<CTuioOutput>> m_outputs;
};
