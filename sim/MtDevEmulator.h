// The emulated touch frame: the device side of both command dialects.
//
// The emulator is transport-free. A front end hands it what the host sent and carries its
// answers back:
//   - HID (lo-speed dialect): OnHidOutput takes one output report and returns the input reports
//     to send (CMtEmuHidLink puts this behind a SOCK_SEQPACKET socketpair that the real hidraw
//     port talks to; a /dev/uhid front can do the same);
//   - USB bulk (hi-speed dialect): BulkWrite / BulkRead are the two pipes (CMtEmuUsbService puts
//     them behind the bulk port in process).
//
// It finds the command through byte 5 of a packet, answers frame polls from a queue or a frame
// source, serves and stores the information block, scan pattern, configuration block, status
// and raw frame, and keeps a log of every request. Faults can be injected one at a time.
// All methods are thread-safe; the frame source runs with the emulator locked and may call
// back into it.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

// One frame payload: the 63 bytes after the 0xD1 reply code.
using TEmuFramePayload = std::array<uint8_t, 63>;

// Fills a frame payload for the next poll; false when there is none (the idle frame is sent).
using TEmuFrameSource = std::function<bool(TEmuFramePayload& payload)>;

struct TEmuContact {
    uint8_t id;
    uint8_t status;
    uint16_t x;
    uint16_t y;
    int16_t width = 0;   // extended form only
    int16_t height = 0;  // extended form only
};

// Frame payloads in the two forms (at most 9 compact or 5 extended contacts are kept).
TEmuFramePayload EmuCompactFrame(int16_t extentX, int16_t extentY,
                                 const std::vector<TEmuContact>& contacts);
TEmuFramePayload EmuExtendedFrame(int16_t logicalX, int16_t logicalY, uint16_t rawX, uint16_t rawY,
                                  const std::vector<TEmuContact>& contacts);

// The product defaults with one default area, encoded as a configuration block.
std::vector<uint8_t> EmuDefaultConfigBlock();

enum class TEmuFaultKind {
    DropReply,       // the reply is not sent
    LateReply,       // the reply is sent value ms late
    Garbage,         // the reply is noise whose first byte is no reply code
    WrongCode,       // the reply carries another reply code
    ShortReply,      // the reply is cut to value bytes
    StallPipe,       // bulk: the IN (value 0) or OUT (value 1) pipe stalls `count` times
    RefuseWrite,     // a write request (or data piece) is acknowledged with a refusal
    FirmwareStatus,  // end of data is acknowledged with status value (default 1)
    Vanish,          // the device disappears when the request arrives
    Stall,           // read pieces carry no data: this reply and count-1 more, each value ms late
};

// Which messages of a transaction a fault may hit.
enum class TEmuStage {
    Any,
    Request,  // a command, read request or write request
    Data,     // a data piece (lo) or data write (hi)
    End,      // end of data
};

struct TEmuFault {
    TEmuFaultKind kind;
    uint8_t command = 0;   // only messages of this command (0: any)
    TEmuStage stage = TEmuStage::Any;
    int skip = 0;          // matching messages let through unharmed first
    int value = 0;
    int count = 1;         // StallPipe: stalls in a row; Stall: empty replies
    uint8_t notCommand = 0;  // never messages of this command (0: no exception)
};

// One message the emulator received.
struct TEmuRequest {
    bool hiSpeed;
    TEmuStage stage;
    uint8_t kind;        // lo: packet length (4, 17, 27, 37, 64); hi: packet type, 0 for data
    uint8_t command;     // for data and end of data: the command of the write in progress
    uint32_t parameter;  // bytes 1..4 (a data piece's sequence number)
    size_t bytes;        // bytes received
};

// A completed write transaction.
struct TEmuWrite {
    bool hiSpeed;
    uint8_t command;
    std::vector<uint8_t> data;   // the data (hi: cut to the announced length)
    uint32_t announced;          // hi: the length the write request announced; lo: 0
    size_t bytesReceived;        // hi: data bytes sent including padding; lo: data bytes
    uint32_t pieces;             // lo: data pieces received
};

// An input report to send, possibly late.
struct TEmuReply {
    std::vector<uint8_t> bytes;
    unsigned delayMs = 0;
};

// The raw frame that GetFrameData reads.
struct TEmuRawFrame {
    uint32_t frameNo = 1;
    uint8_t frameMode = 0;
    std::array<uint8_t, 8> header1{};
    std::array<uint8_t, 8> header2{};
    std::vector<uint8_t> data;
};

class CMtDevEmulator {
public:
    CMtDevEmulator();
    ~CMtDevEmulator();

    CMtDevEmulator(const CMtDevEmulator&) = delete;
    CMtDevEmulator& operator=(const CMtDevEmulator&) = delete;

    // --- What the device holds (tests and tools replace these)
    void SetConfigBlock(std::vector<uint8_t> block);
    std::vector<uint8_t> ConfigBlock() const;
    void SetDeviceInfo(std::vector<uint8_t> info);       // 43 bytes by default
    std::vector<uint8_t> DeviceInfo() const;
    void SetScanPattern(std::vector<uint8_t> pattern);   // bytes 2..5: its total size
    std::vector<uint8_t> ScanPattern() const;
    void SetStatus(std::vector<uint8_t> status);
    void SetRawFrame(TEmuRawFrame frame);
    // Data served for another read command.
    void SetReadData(uint8_t command, std::vector<uint8_t> data);
    // Data bytes per lo-speed piece, 0..58 (58 by default).
    void SetPieceBytes(int bytes);

    // --- Frames
    void QueueFrame(const TEmuFramePayload& payload);
    void SetFrameSource(TEmuFrameSource source);
    // Sent when neither the queue nor the source has a frame: a compact frame without
    // contacts, by default with extents 16384 x 16384.
    void SetIdleFrame(const TEmuFramePayload& payload);
    size_t QueuedFrames() const;
    uint64_t FramesServed() const;

    // --- Faults, applied once each, in the order injected
    void InjectFault(const TEmuFault& fault);
    size_t PendingFaults() const;
    void ClearFaults();
    bool Vanished() const;
    // Runs (on the transport's thread, the emulator locked) just before the device vanishes by
    // a fault, so that the unplug can be reported first, as when a real device is pulled.
    void SetVanishHook(std::function<void()> hook);

    // --- What the host did
    std::vector<TEmuRequest> Requests() const;
    size_t RequestCount() const;
    // Blocks until at least n requests have been received.
    void WaitForRequests(size_t n) const;
    void ClearRequests();
    // Whether requests are logged (the default). A long-running emulated frame turns the log
    // off, or it would grow with every poll.
    void KeepRequestLog(bool keep);
    std::vector<TEmuWrite> Writes() const;
    // The last completed write of a command; false when there was none.
    bool LastWrite(uint8_t command, TEmuWrite* write) const;
    size_t WriteCount(uint8_t command) const;

    // --- Transport side
    // One output report in (without the report-number byte), the input reports to send out.
    // Returns false when the device vanished with this report (nothing more is sent).
    bool OnHidOutput(const uint8_t* report, size_t length, std::vector<TEmuReply>* replies);

    // Bulk pipes. BulkWrite takes one OUT transfer. BulkRead takes the next IN transfer:
    // kMtUsbSuccess with *size bytes; kMtUsbTransactionTimeout when nothing is ready within
    // waitMs (*readyInMs then tells when the next one is, or -1 for none); kMtUsbPipeStalled;
    // kMtUsbNotResponding once vanished.
    int BulkWrite(const uint8_t* data, uint32_t size);
    int BulkRead(uint8_t* buffer, uint32_t* size, uint64_t nowMicros, int64_t* readyAtMicros);
    bool PipeStalled(bool in) const;
    void ClearPipeStall(bool in);

private:
    using Lock = std::unique_lock<std::recursive_mutex>;

    // Lo-speed dialect
    void HandleLo(const uint8_t* report, size_t length, std::vector<TEmuReply>* replies,
                  TEmuRequest* request);
    void LoRead(uint8_t command, uint32_t parameter, std::vector<TEmuReply>* replies);
    void LoReadFrom(const std::vector<uint8_t>& data, uint32_t piece,
                    std::vector<TEmuReply>* replies);
    void LoFrameData(uint32_t parameter, std::vector<TEmuReply>* replies);
    std::vector<uint8_t> FrameReply();

    // Hi-speed dialect
    TEmuRequest ClassifyHi(const uint8_t* data, uint32_t size) const;
    void HandleHi(const uint8_t* data, uint32_t size, const TEmuRequest& request,
                  std::vector<std::vector<uint8_t>>* in);

    const std::vector<uint8_t>* ReadData(uint8_t command) const;
    void StoreWrite(TEmuWrite write);
    void ApplyOverride(const std::vector<uint8_t>& block);
    // Finds the fault that hits this message, removes it and returns true.
    bool TakeFault(const TEmuRequest& request, TEmuFault* fault);
    void ApplyHidFault(const TEmuFault& fault, const TEmuRequest& request,
                       std::vector<TEmuReply>* replies);
    void ApplyBulkFault(const TEmuFault& fault, const TEmuRequest& request,
                        std::vector<std::vector<uint8_t>>* in, unsigned* delayMs);
    void Record(const TEmuRequest& request);
    std::vector<uint8_t> Garbage(size_t bytes);

    mutable std::recursive_mutex m_mutex;
    mutable std::condition_variable_any m_requestsChanged;

    std::vector<uint8_t> m_config;
    std::vector<uint8_t> m_info;
    std::vector<uint8_t> m_scanPattern;
    std::vector<uint8_t> m_status;
    std::map<uint8_t, std::vector<uint8_t>> m_otherData;
    TEmuRawFrame m_rawFrame;
    int m_pieceBytes = 58;

    std::deque<TEmuFramePayload> m_frames;
    TEmuFrameSource m_frameSource;
    TEmuFramePayload m_idleFrame{};
    uint64_t m_framesServed = 0;

    std::deque<TEmuFault> m_faults;
    bool m_vanished = false;
    std::function<void()> m_vanishHook;
    // A stalled read: empty replies still to send, their delay, and the pieces they took, so
    // that the data goes on where it stopped.
    int m_stallRemaining = 0;
    unsigned m_stallDelayMs = 0;
    uint32_t m_stallShift = 0;
    uint32_t m_noise = 0x2545F491u;

    std::vector<TEmuRequest> m_requests;
    bool m_keepRequestLog = true;
    std::vector<TEmuWrite> m_writes;
    // A write completed by the message in hand, stored once no fault has refused it.
    TEmuWrite m_pendingStore{};
    bool m_hasPendingStore = false;

    // Lo-speed write in progress.
    bool m_loWriting = false;
    uint8_t m_loWriteCommand = 0;
    std::vector<uint8_t> m_loWriteData;
    uint32_t m_loWritePieces = 0;

    // Hi-speed write in progress.
    bool m_hiWriting = false;
    uint8_t m_hiWriteCommand = 0;
    uint32_t m_hiAnnounced = 0;
    uint64_t m_hiRounded = 0;
    std::vector<uint8_t> m_hiWriteData;

    // Bulk IN pipe: transfers with the time they become ready (virtual or real microseconds of
    // the caller's clock; 0 = at once) and the stall state of both pipes.
    struct TInTransfer {
        std::vector<uint8_t> bytes;
        unsigned delayMs;
        int64_t readyAt;  // -1 until the first read sees it
    };
    std::deque<TInTransfer> m_in;
    int m_stallsPending[2] = {0, 0};  // [0] IN, [1] OUT
    bool m_stalled[2] = {false, false};
};
