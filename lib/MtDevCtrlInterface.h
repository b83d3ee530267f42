// The device controller: command packets, transactions and the device operations that the rest
// of the system calls (open, close, read the configuration, poll a frame, and the reads and
// writes of the device's information block, status, scan pattern, configuration and
// touch-system file).
//
// Two dialects, one per transport. The lo-speed dialect rides on 64-byte HID reports; the
// hi-speed dialect on USB bulk pipes with 28-byte command packets. A command packet hides its
// command byte among random filler at a position that byte 5 names. Every operation returns a
// DEV_ERR code and never throws.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "MtDevComInterface.h"
#include "MtDevConfig.h"
#include "MtDevFrame.h"

// ---------------------------------------------------------------------------------------------
// Result codes

typedef uint32_t DEV_ERR;

enum : DEV_ERR {
    DE_OK = 0,
    DE_ERROR = 1,              // aborted transfer, unexpected reply code, device path missing
    DE_UNSUPPORT = 2,          // not supported; a frame poll whose reply is not a frame
    DE_DEV_NOT_OPENED = 3,
    DE_DEV_READ = 4,           // read failed or returned too little
    DE_DEV_WRITE = 5,
    DE_NULLPTR = 6,
    DE_DEV_FLASH = 7,          // the device refused or mis-acknowledged a write step
    DE_RW_LENGTH = 8,          // a read returned another length than required
    DE_BAD_PARAM = 9,
    DE_UNEXPECTED_READ = 10,   // the reply to a write request is not an acknowledgement
    DE_BAD_VERSION = 11,       // a record or frame could not be decoded
    DE_BAD_USB_MODE = 12,      // not available on this transport
    DE_BAD_DATA_SIZE = 13,     // a size reported by the device is out of range
    DE_SW_READ_TIMEOUT = 14,   // named only
    DE_ERROR_BY_FMW = 1000,    // + the firmware's status byte for a refused hi-speed write
};

// Room a caller gives FormatMtDevError for the name, terminating zero included.
constexpr size_t MTDEV_ERROR_NAME_CHARS = 32;

// Copies the code's name ("DE_OK", ..., "DE_UNKNOWN" for any other value) into a per-thread
// buffer, and on into `text` when it is not null; returns the buffer.
wchar_t* FormatMtDevError(DEV_ERR code, wchar_t* text);
// The same name as a narrow string, for log lines.
const char* MtDevErrorName(DEV_ERR code);

// The touch-system file a tool may write, whichever way it reaches the frame: the device's own
// minimum (SetTouchSystemFile refuses less), and a bound far above any real file (they are
// kilobytes) that keeps a mistaken file off the link.
constexpr size_t MTDEV_TOUCH_SYSTEM_FILE_MIN_BYTES = 1024;
constexpr size_t MTDEV_TOUCH_SYSTEM_FILE_MAX_BYTES = 4u << 20;

// ---------------------------------------------------------------------------------------------
// Protocol constants

// Command codes.
constexpr uint8_t MTDEV_CMD_PROCESS = 0xA0;
constexpr uint8_t MTDEV_CMD_PROTECT = 0xA9;
constexpr uint8_t MTDEV_CMD_CLOSE = 0xAF;
constexpr uint8_t MTDEV_CMD_DEV_INFO = 0xB1;
constexpr uint8_t MTDEV_CMD_SCAN_PATTERN = 0xB2;
constexpr uint8_t MTDEV_CMD_DEV_CONFIG = 0xB3;
constexpr uint8_t MTDEV_CMD_FRAME_DATA = 0xB4;
constexpr uint8_t MTDEV_CMD_CONFIG_OVERRIDE = 0xB5;
constexpr uint8_t MTDEV_CMD_FRAME_SDK = 0xB6;
constexpr uint8_t MTDEV_CMD_DEV_STATUS = 0xB8;
constexpr uint8_t MTDEV_CMD_TOUCH_SYSTEM = 0xBE;

// Packet kinds: the lo-speed packet length, or the hi-speed packet type.
constexpr uint8_t MTDEV_PACKET_END = 4;       // end of data
constexpr uint8_t MTDEV_PACKET_COMMAND = 17;  // plain command
constexpr uint8_t MTDEV_PACKET_WRITE = 27;    // write request
constexpr uint8_t MTDEV_PACKET_READ = 37;     // read request
constexpr uint8_t MTDEV_PACKET_DATA = 64;     // lo-speed data piece (0x40)
constexpr int MTDEV_HI_PACKET_BYTES = 28;

// Reply codes.
constexpr uint8_t MTDEV_REPLY_DATA = 0xD1;       // lo-speed data piece / frame
constexpr uint8_t MTDEV_REPLY_ACK = 0x06;        // lo-speed acknowledgement, second byte below
constexpr uint8_t MTDEV_REPLY_END = 0xE6;        // end of data / size answer
constexpr uint8_t MTDEV_REPLY_WRITE_OK = 0xE4;   // write request acknowledged
constexpr uint8_t MTDEV_REPLY_PIECE_OK = 0xE5;   // data piece acknowledged
constexpr uint8_t MTDEV_REPLY_END_OK = 0xE7;     // end of data acknowledged

constexpr int MTDEV_PIECE_DATA_BYTES = 58;        // data bytes of one lo-speed piece
constexpr uint32_t MTDEV_SIZE_QUERY = 0xFFFFFFFFu;
constexpr uint32_t MTDEV_PIECE_ACK_MARK = 0xF00000;  // or-ed into a piece acknowledgement
constexpr uint32_t MTDEV_EOD_PARAMETER = 0x444F45;   // "E", "O", "D", 0
constexpr int MTDEV_HI_BLOCK_BYTES = 65536;
constexpr uint8_t MTDEV_FRAME_DATA_MARK = 0x7B;      // "{" of a raw frame header
constexpr int MTDEV_FRAME_DATA_HEAD_BYTES = 32;      // head of a hi-speed raw frame
constexpr uint32_t MTDEV_SCAN_PATTERN_MAX = 0x200000;
constexpr int MTDEV_TOUCH_SYSTEM_MIN = 1024;
constexpr int MTDEV_DEV_INFO_BYTES = 43;

// Parameter of the close command (0xAF) for close modes 0..6; 7 and above send 6, 255 sends
// nothing.
constexpr uint8_t MTDEV_CLOSE_MODE_PARAMETER[7] = {1, 0, 4, 6, 6, 6, 189};
constexpr unsigned char MTDEV_CLOSE_SILENT = 255;

// ---------------------------------------------------------------------------------------------
// Records moved by the operations

// The device's information block, moved as it is.
struct _HARDWARE_DEV_INFO {
    uint8_t bytes[MTDEV_DEV_INFO_BYTES];
};
static_assert(sizeof(_HARDWARE_DEV_INFO) == 43);

// One raw frame as GetFrameData reads it.
struct _HARDWARE_FRAME_DATA {
    uint32_t frameNo;
    uint16_t dataBytes;    // bytes of frame data received
    uint8_t frameMode;
    uint8_t header1[8];
    uint8_t header2[8];
    uint16_t capacity;     // size of storage; set by the caller
    uint8_t* data;         // the frame data; set by the operation
    uint8_t* storage;      // the caller's buffer of capacity bytes
};

// Time-outs of the transactions, in milliseconds. The defaults are the device's; tests shorten
// them so that a lost reply costs milliseconds, not seconds.
struct TMtDevTimeouts {
    unsigned hidReplyMs = 500;       // every lo-speed reply, frame and piece acknowledgement
    unsigned hidWriteAckMs = 20000;  // acknowledgement of a lo-speed write request
    unsigned hidEndAckMs = 5000;     // acknowledgement of lo-speed end of data
    unsigned hidWriteMs = 500;       // handed to the HID write, which does not use it
    unsigned bulkCommandMs = 1000;   // hi-speed packets and block reads
    unsigned bulkWriteAckMs = 4000;  // acknowledgement of a hi-speed write request
    unsigned bulkDataWriteMs = 10000;  // each hi-speed data write of up to 65536 bytes
    unsigned bulkEndAckMs = 5000;    // acknowledgement of hi-speed end of data
};

// ---------------------------------------------------------------------------------------------

class CMtDevController {
public:
    explicit CMtDevController(const TMtDevTimeouts& timeouts = TMtDevTimeouts());
    ~CMtDevController();

    CMtDevController(const CMtDevController&) = delete;
    CMtDevController& operator=(const CMtDevController&) = delete;

    // --- Device operations
    DEV_ERR OpenDevice(TMACDEVICEPATH* path);   // 0 open; 1 null path, type 0 or open failure
    DEV_ERR CloseDevice(unsigned char mode);    // always closes; never fails
    DEV_ERR GetDeviceConfig(_HARDWARE_DEV_CONFIG* config);
    DEV_ERR GetFrameSdk(_HARDWARE_FRAME_SDK* frame);   // the live poll, HID only
    DEV_ERR GetFrameData(_HARDWARE_FRAME_DATA* raw);
    DEV_ERR GetDeviceInfo(_HARDWARE_DEV_INFO* info);
    DEV_ERR SetDeviceInfo(_HARDWARE_DEV_INFO* info);
    // Without a buffer: asks for the size (6-byte header) and stores it in length.
    DEV_ERR GetScanPatternFile(uint8_t* buffer, int& length);
    DEV_ERR SetScanPatternFile(uint8_t* buffer, int length);
    DEV_ERR GetDevStatus(uint8_t* buffer, int& length);
    DEV_ERR SetDeviceConfig(_HARDWARE_DEV_CONFIG* config);
    DEV_ERR SetDeviceConfigOverride(_HARDWARE_CONFIG_OVERRIDE* override);
    DEV_ERR SetTouchSystemFile(uint8_t* buffer, int length);   // at least 1024 bytes
    uint8_t SetDeviceType(TMACDEVICEPATH* path);
    // Reads one HID report (64 bytes) into buffer and prints it on standard output.
    DEV_ERR ReadDate(uint8_t* buffer);

    // Cache stubs.
    DEV_ERR GetDeviceCache();    // always 1
    DEV_ERR SetDeviceCache();    // always 2
    DEV_ERR ClearCache();        // 0, or 3 without a device
    void ClearHiSpeedCache();
    void ClearLoSpeedCache();

    // --- Packets. The lo-speed buffer must hold at least max(length, 6) bytes, the hi-speed
    // buffer 28. Nothing is written for a null buffer or a length/type other than
    // 4, 17, 27, 37, 64.
    static void MakeCommandPacketLoSpeed(uint8_t* buffer, int length, uint8_t command,
                                         uint32_t parameter);
    static void MakeCommandPacketHiSpeed(uint8_t* buffer, uint8_t type, uint8_t command,
                                         uint32_t parameter);

    // --- Transactions
    DEV_ERR CmdLoSpeed(uint8_t command, uint32_t parameter);
    DEV_ERR CmdHiSpeed(uint8_t command, uint32_t parameter);
    // With a null buffer: a size query, the size stored in length.
    DEV_ERR GetLoSpeed(uint8_t command, uint8_t* buffer, int& length);
    DEV_ERR GetHiSpeed(uint8_t command, uint8_t* buffer, int& length);
    DEV_ERR SetLoSpeed(uint8_t command, const uint8_t* data, int length);
    DEV_ERR SetHiSpeed(uint8_t command, const uint8_t* data, int length);
    DEV_ERR CmdProcess(uint8_t mode);     // 0xA0 with (mode & 7) | 8
    DEV_ERR CmdProtect(uint32_t value);   // 0xA9 with value

    // --- Progress of the transfer in flight; safe to call from another thread.
    void BreakOffCmdProcess();
    void ResetCmdProcess();
    uint8_t GetCmdProcess() const;   // percentage 0..100

    // --- Inspection
    uint8_t DeviceType() const { return deviceType; }
    uint32_t ProgressDone() const { return progressDone.load(std::memory_order_relaxed); }
    uint32_t ProgressTotal() const { return progressTotal.load(std::memory_order_relaxed); }
    uint8_t AbortFlag() const { return abortFlag.load(std::memory_order_relaxed); }
    const TMtDevTimeouts& Timeouts() const { return m_timeouts; }
    void SetTimeouts(const TMtDevTimeouts& timeouts) { m_timeouts = timeouts; }
    CMtDevCommunicator& Communicator() { return m_com; }

private:
    void StartOperation(uint32_t total);
    void FinishTransfer();
    void AddProgress(uint32_t bytes);
    DEV_ERR Read(uint8_t command, uint8_t* buffer, int& length);
    DEV_ERR Write(uint8_t command, const uint8_t* data, int length);
    DEV_ERR GetFrameDataLoSpeed(_HARDWARE_FRAME_DATA* raw);
    DEV_ERR GetFrameDataHiSpeed(_HARDWARE_FRAME_DATA* raw);

    CMtDevCommunicator m_com;
    std::atomic<uint32_t> progressDone{0};
    std::atomic<uint32_t> progressTotal{0};
    std::atomic<uint8_t> abortFlag{0};
    uint8_t deviceType = MTDEV_TYPE_NONE;
    TMtDevTimeouts m_timeouts;
};
