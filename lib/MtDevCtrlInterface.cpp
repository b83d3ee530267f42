#include "MtDevCtrlInterface.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

#include "MtDevLog.h"
#include "LittleEndian.h"
#include "MultiPlatformAPI.h"

namespace {

// Pause between an acknowledged write request and the first data.
constexpr uint64_t kWriteSettleMicros = 200000;
// Pause between the request for the rest of a hi-speed read and reading it.
constexpr uint64_t kRestReadPauseMicros = 300000;
// A hi-speed size answer is read into a buffer of this size.
constexpr uint32_t kHiSizeAnswerBytes = 1024;

struct TErrorName {
    DEV_ERR code;
    const char* name;
};

constexpr TErrorName kErrorNames[] = {
    {DE_OK, "DE_OK"},
    {DE_ERROR, "DE_ERROR"},
    {DE_UNSUPPORT, "DE_UNSUPPORT"},
    {DE_DEV_NOT_OPENED, "DE_DEV_NOT_OPENED"},
    {DE_DEV_READ, "DE_DEV_READ"},
    {DE_DEV_WRITE, "DE_DEV_WRITE"},
    {DE_NULLPTR, "DE_NULLPTR"},
    {DE_DEV_FLASH, "DE_DEV_FLASH"},
    {DE_RW_LENGTH, "DE_RW_LENGTH"},
    {DE_BAD_PARAM, "DE_BAD_PARAM"},
    {DE_UNEXPECTED_READ, "DE_UNEXPECTED_READ"},
    {DE_BAD_VERSION, "DE_BAD_VERSION"},
    {DE_BAD_USB_MODE, "DE_BAD_USB_MODE"},
    {DE_BAD_DATA_SIZE, "DE_BAD_DATA_SIZE"},
    {DE_SW_READ_TIMEOUT, "DE_SW_READ_TIMEOUT"},
    {DE_ERROR_BY_FMW, "DE_ERROR_BY_FMW"},
};

// One buffer per thread: callers on different device threads never share it.
thread_local wchar_t t_errorText[MTDEV_ERROR_NAME_CHARS];

bool AcceptedPacketKind(int kind) {
    return kind == 4 || kind == 17 || kind == 27 || kind == 37 || kind == 64;
}

}  // namespace

const char* MtDevErrorName(DEV_ERR code) {
    for (const TErrorName& entry : kErrorNames) {
        if (entry.code == code) return entry.name;
    }
    return "DE_UNKNOWN";
}

wchar_t* FormatMtDevError(DEV_ERR code, wchar_t* text) {
    const char* name = MtDevErrorName(code);
    size_t i = 0;
    for (; name[i] != '\0' && i + 1 < MTDEV_ERROR_NAME_CHARS; ++i) {
        t_errorText[i] = static_cast<wchar_t>(name[i]);
    }
    t_errorText[i] = L'\0';
    if (text != nullptr) std::wcscpy(text, t_errorText);
    return t_errorText;
}

// ---------------------------------------------------------------------------------------------

CMtDevController::CMtDevController(const TMtDevTimeouts& timeouts) : m_timeouts(timeouts) {}

CMtDevController::~CMtDevController() = default;

// ---------------------------------------------------------------------------------------------
// Packets

void CMtDevController::MakeCommandPacketLoSpeed(uint8_t* buffer, int length, uint8_t command,
                                                uint32_t parameter) {
    if (buffer == nullptr || !AcceptedPacketKind(length)) return;
    buffer[0] = static_cast<uint8_t>(length);
    // Seeded from the millisecond clock: two packets built in the same millisecond match.
    std::srand(static_cast<unsigned>(TGetTickCount()));
    for (int i = 1; i < length; ++i) {
        buffer[i] = static_cast<uint8_t>(std::rand() % (length - 5) + 5);
    }
    // The command sits clear of the parameter (1..4) and of the position byte itself. A 4-byte
    // packet gets position 2, which the parameter then overwrites; only the hand-built
    // end-of-data report has that length.
    int position = buffer[5];
    if (position < 10) position = 10;
    if (position > length - 2) position = length - 2;
    buffer[5] = static_cast<uint8_t>(position);
    buffer[position] = command;
    WriteLeU32(buffer + 1, parameter);
    buffer[length - 1] = 0xFF;
}

void CMtDevController::MakeCommandPacketHiSpeed(uint8_t* buffer, uint8_t type, uint8_t command,
                                                uint32_t parameter) {
    if (buffer == nullptr || !AcceptedPacketKind(type)) return;
    buffer[0] = type;
    std::srand(static_cast<unsigned>(TGetTickCount()));
    for (int i = 1; i < MTDEV_HI_PACKET_BYTES; ++i) {
        buffer[i] = static_cast<uint8_t>(std::rand() % 23 + 5);
    }
    int position = buffer[5];
    if (position < 8) {
        position = 8;
    } else if (position >= MTDEV_HI_PACKET_BYTES) {
        position = MTDEV_HI_PACKET_BYTES - 1;
    }
    buffer[5] = static_cast<uint8_t>(position);
    buffer[position] = command;
    WriteLeU32(buffer + 1, parameter);
}

// ---------------------------------------------------------------------------------------------
// Progress

void CMtDevController::BreakOffCmdProcess() {
    abortFlag.store(0xFF, std::memory_order_relaxed);
}

void CMtDevController::ResetCmdProcess() {
    progressDone.store(0, std::memory_order_relaxed);
    abortFlag.store(0, std::memory_order_relaxed);
}

uint8_t CMtDevController::GetCmdProcess() const {
    const uint32_t total = progressTotal.load(std::memory_order_relaxed);
    const uint32_t done = progressDone.load(std::memory_order_relaxed);
    if (total == 0 || done >= total) return 100;
    return static_cast<uint8_t>(done * 100u / total);
}

void CMtDevController::StartOperation(uint32_t total) {
    progressDone.store(0, std::memory_order_relaxed);
    progressTotal.store(total, std::memory_order_relaxed);
    abortFlag.store(0, std::memory_order_relaxed);
}

void CMtDevController::FinishTransfer() {
    progressDone.store(progressTotal.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void CMtDevController::AddProgress(uint32_t bytes) {
    progressDone.fetch_add(bytes, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// Transactions

DEV_ERR CMtDevController::CmdLoSpeed(uint8_t command, uint32_t parameter) {
    FinishTransfer();
    uint8_t packet[MTDEV_REPORT_BYTES] = {};
    MakeCommandPacketLoSpeed(packet, MTDEV_PACKET_COMMAND, command, parameter);
    return m_com.WriteHidDevCom(packet, m_timeouts.hidWriteMs) == MTDEV_REPORT_BYTES
               ? DE_OK
               : DE_DEV_WRITE;
}

DEV_ERR CMtDevController::CmdHiSpeed(uint8_t command, uint32_t parameter) {
    FinishTransfer();
    uint8_t packet[MTDEV_HI_PACKET_BYTES] = {};
    MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_COMMAND, command, parameter);
    return m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, m_timeouts.bulkCommandMs) == 0
               ? DE_OK
               : DE_DEV_WRITE;
}

DEV_ERR CMtDevController::GetLoSpeed(uint8_t command, uint8_t* buffer, int& length) {
    // Requests and replies share one report buffer: after a time-out the reply checks see the
    // request's own first byte (its length) and fail.
    uint8_t io[MTDEV_REPORT_BYTES] = {};
    if (buffer == nullptr) {
        MakeCommandPacketLoSpeed(io, MTDEV_PACKET_READ, command, MTDEV_SIZE_QUERY);
        if (m_com.WriteHidDevCom(io, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) {
            return DE_DEV_WRITE;
        }
        if (m_com.ReadHidDevCom(io, m_timeouts.hidReplyMs) != MTDEV_REPORT_BYTES) return DE_DEV_READ;
        if (io[0] != MTDEV_REPLY_ACK || io[1] != MTDEV_REPLY_END) return DE_ERROR;
        length = static_cast<int>(ReadLeU32(io + 2));
        FinishTransfer();
        return DE_OK;
    }

    int offset = 0;
    uint32_t piece = 0;
    while (offset < length) {
        if (abortFlag.load(std::memory_order_relaxed) != 0) return DE_ERROR;
        MakeCommandPacketLoSpeed(io, MTDEV_PACKET_READ, command, piece);
        if (m_com.WriteHidDevCom(io, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) {
            return DE_DEV_WRITE;
        }
        if (m_com.ReadHidDevCom(io, m_timeouts.hidReplyMs) != MTDEV_REPORT_BYTES) return DE_DEV_READ;
        if (io[0] == MTDEV_REPLY_DATA) {
            const int n = io[63];
            if (n > MTDEV_PIECE_DATA_BYTES) return DE_ERROR;
            // A piece of 0 bytes does not advance: the host asks for the next piece and only
            // the device's end marker or an abort ends the loop.
            const int take = std::min(n, length - offset);
            std::memcpy(buffer + offset, io + 5, static_cast<size_t>(take));
            AddProgress(static_cast<uint32_t>(take));
            offset += take;
            ++piece;
            continue;
        }
        if (io[0] == MTDEV_REPLY_ACK && io[1] == MTDEV_REPLY_END) {
            length = offset;
            break;
        }
        return DE_ERROR;
    }
    FinishTransfer();
    return DE_OK;
}

DEV_ERR CMtDevController::GetHiSpeed(uint8_t command, uint8_t* buffer, int& length) {
    uint8_t packet[MTDEV_HI_PACKET_BYTES] = {};
    const unsigned timeout = m_timeouts.bulkCommandMs;
    if (buffer == nullptr) {
        MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_READ, command, MTDEV_SIZE_QUERY);
        if (m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, timeout) != 0) return DE_DEV_WRITE;
        uint8_t answer[kHiSizeAnswerBytes];
        const int got = m_com.ReadBulkDevCom(answer, kHiSizeAnswerBytes, timeout);
        if (got < 0) return DE_DEV_READ;
        // The size is how many bytes the device answered with; their contents do not matter.
        length = got;
        FinishTransfer();
        return DE_OK;
    }

    const int whole = length / MTDEV_HI_BLOCK_BYTES;
    int64_t total = 0;
    for (int i = 0; i < whole; ++i) {
        if (abortFlag.load(std::memory_order_relaxed) != 0) return DE_ERROR;
        MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_READ, command, static_cast<uint32_t>(i));
        if (m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, timeout) != 0) return DE_DEV_WRITE;
        const int got = m_com.ReadBulkDevCom(buffer + static_cast<size_t>(i) * MTDEV_HI_BLOCK_BYTES,
                                             MTDEV_HI_BLOCK_BYTES, timeout);
        if (got < 0) return DE_DEV_READ;
        AddProgress(MTDEV_HI_BLOCK_BYTES);  // the full block, whatever came
        if (got < MTDEV_HI_BLOCK_BYTES) {
            // A short block ends the read; the length reported counts it as full.
            length = (i + 1) * MTDEV_HI_BLOCK_BYTES;
            FinishTransfer();
            return DE_OK;
        }
        total += MTDEV_HI_BLOCK_BYTES;
    }

    const int rest = length - whole * MTDEV_HI_BLOCK_BYTES;
    if (rest > 0) {
        if (abortFlag.load(std::memory_order_relaxed) != 0) return DE_ERROR;
        const uint32_t parameter = static_cast<uint32_t>(rest) << 16 | static_cast<uint32_t>(whole);
        MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_READ, command, parameter);
        if (m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, timeout) != 0) return DE_DEV_WRITE;
        TSleepMicros(kRestReadPauseMicros);
        const int got =
            m_com.ReadBulkDevCom(buffer + static_cast<size_t>(whole) * MTDEV_HI_BLOCK_BYTES,
                                 static_cast<uint32_t>(rest), timeout);
        if (got < 0) return DE_DEV_READ;
        AddProgress(static_cast<uint32_t>(got));
        total += got;
    }
    length = static_cast<int>(total);
    FinishTransfer();
    return DE_OK;
}

DEV_ERR CMtDevController::SetLoSpeed(uint8_t command, const uint8_t* data, int length) {
    if (data == nullptr && length >= 1) return DE_NULLPTR;
    // One report buffer for the whole transaction: bytes a piece does not set keep what the
    // buffer held before.
    uint8_t io[MTDEV_REPORT_BYTES] = {};
    // The lo-speed dialect does not announce the size.
    MakeCommandPacketLoSpeed(io, MTDEV_PACKET_WRITE, command, 0);
    if (m_com.WriteHidDevCom(io, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) return DE_DEV_WRITE;
    if (m_com.ReadHidDevCom(io, m_timeouts.hidWriteAckMs) != MTDEV_REPORT_BYTES) return DE_DEV_READ;
    if (io[0] != MTDEV_REPLY_ACK) return DE_UNEXPECTED_READ;
    if (io[1] != MTDEV_REPLY_WRITE_OK) return DE_ERROR;
    if (ReadLeU32(io + 2) != 4) return DE_DEV_FLASH;
    TSleepMicros(kWriteSettleMicros);

    if (length >= 1) {
        uint32_t sequence = 0;
        int offset = 0;
        do {
            if (abortFlag.load(std::memory_order_relaxed) != 0) return DE_ERROR;
            const int n = std::min(MTDEV_PIECE_DATA_BYTES, length - offset);
            io[0] = MTDEV_PACKET_DATA;
            WriteLeU32(io + 1, sequence);
            io[63] = static_cast<uint8_t>(n);
            std::memcpy(io + 5, data + offset, static_cast<size_t>(n));
            if (m_com.WriteHidDevCom(io, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) {
                return DE_DEV_WRITE;
            }
            if (m_com.ReadHidDevCom(io, m_timeouts.hidReplyMs) != MTDEV_REPORT_BYTES) {
                return DE_DEV_READ;
            }
            if (io[0] != MTDEV_REPLY_ACK || io[1] != MTDEV_REPLY_PIECE_OK) return DE_ERROR;
            if (ReadLeU32(io + 2) != (sequence | MTDEV_PIECE_ACK_MARK)) return DE_DEV_FLASH;
            AddProgress(static_cast<uint32_t>(n));
            offset += n;
            ++sequence;
        } while (offset < length);
    }

    io[0] = MTDEV_PACKET_END;
    io[1] = 'E';
    io[2] = 'O';
    io[3] = 'D';
    if (m_com.WriteHidDevCom(io, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) return DE_DEV_WRITE;
    if (m_com.ReadHidDevCom(io, m_timeouts.hidEndAckMs) != MTDEV_REPORT_BYTES) return DE_DEV_READ;
    if (io[0] != MTDEV_REPLY_ACK) return DE_ERROR;
    if (io[1] != MTDEV_REPLY_END_OK) return DE_DEV_FLASH;
    FinishTransfer();
    return DE_OK;
}

DEV_ERR CMtDevController::SetHiSpeed(uint8_t command, const uint8_t* data, int length) {
    if (data == nullptr) return DE_NULLPTR;
    uint8_t packet[MTDEV_HI_PACKET_BYTES] = {};
    MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_WRITE, command, static_cast<uint32_t>(length));
    if (m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, m_timeouts.bulkCommandMs) != 0) {
        return DE_DEV_WRITE;
    }
    uint8_t answer[MTDEV_REPORT_BYTES] = {};
    if (m_com.ReadBulkDevCom(answer, sizeof answer, m_timeouts.bulkWriteAckMs) != 2) {
        return DE_DEV_READ;
    }
    if (answer[0] != MTDEV_REPLY_WRITE_OK) return DE_ERROR;
    if (answer[1] != 0x04) return DE_DEV_FLASH;
    TSleepMicros(kWriteSettleMicros);

    // The data goes out rounded up to a multiple of 64 bytes. The padding is sent as zeros
    // from a copy of the tail, never read from beyond the caller's data.
    const int64_t rounded = length <= 0 ? length : (static_cast<int64_t>(length) + 63) / 64 * 64;
    std::vector<uint8_t> tail;
    for (int64_t offset = 0; offset < rounded;) {
        if (abortFlag.load(std::memory_order_relaxed) != 0) return DE_ERROR;
        const int64_t chunk = std::min<int64_t>(MTDEV_HI_BLOCK_BYTES, rounded - offset);
        const uint8_t* source = data + offset;
        if (offset + chunk > length) {
            tail.assign(static_cast<size_t>(chunk), 0);
            std::memcpy(tail.data(), data + offset, static_cast<size_t>(length - offset));
            source = tail.data();
        }
        if (m_com.WriteBulkDevCom(source, static_cast<uint32_t>(chunk),
                                  m_timeouts.bulkDataWriteMs) != 0) {
            return DE_DEV_WRITE;
        }
        AddProgress(static_cast<uint32_t>(chunk));
        offset += chunk;
    }

    MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_END, command, MTDEV_EOD_PARAMETER);
    if (m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, m_timeouts.bulkCommandMs) != 0) {
        return DE_DEV_WRITE;
    }
    if (m_com.ReadBulkDevCom(answer, sizeof answer, m_timeouts.bulkEndAckMs) != 2) {
        return DE_DEV_READ;
    }
    if (answer[0] != MTDEV_REPLY_END_OK) return DE_ERROR;
    if (answer[1] != 0) return DE_ERROR_BY_FMW + answer[1];
    FinishTransfer();
    return DE_OK;
}

DEV_ERR CMtDevController::CmdProcess(uint8_t mode) {
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    const uint32_t parameter = (mode & 7u) | 8u;
    return deviceType == MTDEV_TYPE_BULK ? CmdHiSpeed(MTDEV_CMD_PROCESS, parameter)
                                         : CmdLoSpeed(MTDEV_CMD_PROCESS, parameter);
}

DEV_ERR CMtDevController::CmdProtect(uint32_t value) {
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    return deviceType == MTDEV_TYPE_BULK ? CmdHiSpeed(MTDEV_CMD_PROTECT, value)
                                         : CmdLoSpeed(MTDEV_CMD_PROTECT, value);
}

DEV_ERR CMtDevController::Read(uint8_t command, uint8_t* buffer, int& length) {
    return deviceType == MTDEV_TYPE_BULK ? GetHiSpeed(command, buffer, length)
                                         : GetLoSpeed(command, buffer, length);
}

DEV_ERR CMtDevController::Write(uint8_t command, const uint8_t* data, int length) {
    return deviceType == MTDEV_TYPE_BULK ? SetHiSpeed(command, data, length)
                                         : SetLoSpeed(command, data, length);
}

// ---------------------------------------------------------------------------------------------
// Device operations

uint8_t CMtDevController::SetDeviceType(TMACDEVICEPATH* path) {
    deviceType = GetTouchDeviceType(path);
    return deviceType;
}

DEV_ERR CMtDevController::OpenDevice(TMACDEVICEPATH* path) {
    if (path == nullptr) return DE_ERROR;
    if (SetDeviceType(path) == MTDEV_TYPE_NONE) return DE_ERROR;
    const bool opened = deviceType == MTDEV_TYPE_BULK ? m_com.OpenBulkDevCom(path)
                                                      : m_com.OpenHidDevCom(path);
    return opened ? DE_OK : DE_ERROR;
}

DEV_ERR CMtDevController::CloseDevice(unsigned char mode) {
    if (mode != MTDEV_CLOSE_SILENT) {
        const uint32_t parameter = mode < 7 ? MTDEV_CLOSE_MODE_PARAMETER[mode] : 6u;
        if (deviceType == MTDEV_TYPE_BULK) {
            (void)CmdHiSpeed(MTDEV_CMD_CLOSE, parameter);
        } else {
            FinishTransfer();
            uint8_t packet[MTDEV_REPORT_BYTES] = {};
            MakeCommandPacketLoSpeed(packet, MTDEV_PACKET_COMMAND, MTDEV_CMD_CLOSE, parameter);
            (void)m_com.WriteHidDevCom(packet, m_timeouts.hidWriteMs);
        }
    }
    deviceType = MTDEV_TYPE_NONE;
    m_com.CloseDevCom();
    return DE_OK;
}

DEV_ERR CMtDevController::GetDeviceConfig(_HARDWARE_DEV_CONFIG* config) {
    StartOperation(65535);
    if (config == nullptr) return DE_NULLPTR;
    std::memset(static_cast<void*>(config), 0, sizeof *config);
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;

    // The 4-byte head tells the size of the whole block.
    uint8_t head[MTDEV_REPORT_BYTES] = {};
    int length = 4;
    DEV_ERR result = Read(MTDEV_CMD_DEV_CONFIG, head, length);
    if (result != DE_OK) return result;
    if (length < 4) return DE_RW_LENGTH;
    const int size = DecodeDevConfig(head, 4, nullptr);
    if (size == 0) return DE_BAD_VERSION;
    if (size < 0) return DE_BAD_PARAM;

    if (size <= 4) {
        // A block no longer than its head: decoded as it stands, and that is success.
        (void)DecodeDevConfig(head, 4, config);
        return DE_OK;
    }
    progressDone.store(0, std::memory_order_relaxed);
    abortFlag.store(0, std::memory_order_relaxed);
    progressTotal.store(static_cast<uint32_t>(size), std::memory_order_relaxed);
    std::vector<uint8_t> block(static_cast<size_t>(size), 0);
    length = size;
    result = Read(MTDEV_CMD_DEV_CONFIG, block.data(), length);
    if (result != DE_OK) return result;
    const int decoded = DecodeDevConfig(block.data(), std::clamp(length, 0, size), config);
    if (decoded == 0) return DE_BAD_VERSION;
    if (decoded < 0) return DE_BAD_PARAM;
    return DE_OK;
}

DEV_ERR CMtDevController::GetFrameSdk(_HARDWARE_FRAME_SDK* frame) {
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    if (deviceType == MTDEV_TYPE_BULK) return DE_BAD_USB_MODE;
    if (frame == nullptr) return DE_NULLPTR;
    uint8_t io[MTDEV_REPORT_BYTES] = {};
    MakeCommandPacketLoSpeed(io, MTDEV_PACKET_READ, MTDEV_CMD_FRAME_SDK, 0);
    if (m_com.WriteHidDevCom(io, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) return DE_DEV_WRITE;
    if (m_com.ReadHidDevCom(io, m_timeouts.hidReplyMs) != MTDEV_REPORT_BYTES) return DE_DEV_READ;
    // A lost reply leaves the request in the buffer (first byte 37): not a frame.
    if (io[0] != MTDEV_REPLY_DATA) return DE_UNSUPPORT;
    return DecodeFrameBuffer(io + 1, FRAME_PAYLOAD_BYTES, frame) ? DE_OK : DE_BAD_VERSION;
}

DEV_ERR CMtDevController::GetFrameData(_HARDWARE_FRAME_DATA* raw) {
    if (raw == nullptr) return DE_NULLPTR;
    StartOperation(raw->capacity);
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    if (raw->storage == nullptr) return DE_NULLPTR;
    return deviceType == MTDEV_TYPE_BULK ? GetFrameDataHiSpeed(raw) : GetFrameDataLoSpeed(raw);
}

DEV_ERR CMtDevController::GetFrameDataLoSpeed(_HARDWARE_FRAME_DATA* raw) {
    // Built by hand: the command at position 27, the caller's capacity, mode and headers.
    uint8_t request[MTDEV_REPORT_BYTES] = {};
    request[0] = MTDEV_PACKET_READ;
    WriteLeU32(request + 1, MTDEV_SIZE_QUERY);
    request[5] = 27;
    WriteLeU16(request + 6, raw->capacity);
    request[8] = MTDEV_FRAME_DATA_MARK;
    request[9] = raw->frameMode;
    std::memcpy(request + 10, raw->header1, 8);
    std::memcpy(request + 18, raw->header2, 8);
    request[27] = MTDEV_CMD_FRAME_DATA;
    request[36] = 0xFF;

    uint8_t answer[MTDEV_REPORT_BYTES] = {};
    if (m_com.WriteHidDevCom(request, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) {
        return DE_DEV_WRITE;
    }
    if (m_com.ReadHidDevCom(answer, m_timeouts.hidReplyMs) != MTDEV_REPORT_BYTES) return DE_DEV_READ;
    if (answer[0] != MTDEV_REPLY_DATA) return DE_ERROR;
    if (answer[5] != MTDEV_FRAME_DATA_MARK) return DE_BAD_VERSION;
    raw->frameNo = ReadLeU32(answer + 9);
    raw->frameMode = answer[6];
    std::memcpy(raw->header1, answer + 13, 8);
    std::memcpy(raw->header2, answer + 21, 8);
    raw->data = raw->storage;
    raw->dataBytes = 0;

    for (uint32_t piece = 0;; ++piece) {
        if (abortFlag.load(std::memory_order_relaxed) != 0) return DE_ERROR;
        WriteLeU32(request + 1, piece);
        if (m_com.WriteHidDevCom(request, m_timeouts.hidWriteMs) != MTDEV_REPORT_BYTES) {
            return DE_DEV_WRITE;
        }
        if (m_com.ReadHidDevCom(answer, m_timeouts.hidReplyMs) != MTDEV_REPORT_BYTES) {
            return DE_DEV_READ;
        }
        // A device that stops answering would otherwise have its last answer taken again and
        // again; the raw read ends instead.
        if (!m_com.LastHidReadDelivered()) return DE_DEV_READ;
        if (answer[0] == MTDEV_REPLY_DATA) {
            const int n = answer[63];
            if (n > MTDEV_PIECE_DATA_BYTES || raw->dataBytes + n > raw->capacity) {
                return DE_BAD_DATA_SIZE;
            }
            std::memcpy(raw->storage + raw->dataBytes, answer + 5, static_cast<size_t>(n));
            raw->dataBytes = static_cast<uint16_t>(raw->dataBytes + n);
            AddProgress(static_cast<uint32_t>(n));
        } else if (answer[0] == MTDEV_REPLY_ACK) {
            if (answer[1] != MTDEV_REPLY_END) return DE_ERROR;
            FinishTransfer();
            return DE_OK;
        }
        // Any other answer is ignored.
    }
}

DEV_ERR CMtDevController::GetFrameDataHiSpeed(_HARDWARE_FRAME_DATA* raw) {
    uint8_t packet[MTDEV_HI_PACKET_BYTES] = {};
    packet[0] = MTDEV_PACKET_READ;
    packet[5] = 27;
    WriteLeU16(packet + 6, raw->capacity);
    packet[8] = MTDEV_FRAME_DATA_MARK;
    packet[9] = raw->frameMode;
    std::memcpy(packet + 10, raw->header1, 8);
    std::memcpy(packet + 18, raw->header2, 8);
    packet[27] = MTDEV_CMD_FRAME_DATA;
    if (m_com.WriteBulkDevCom(packet, MTDEV_HI_PACKET_BYTES, m_timeouts.bulkCommandMs) != 0) {
        return DE_DEV_WRITE;
    }
    const int got = m_com.ReadBulkDevCom(raw->storage, raw->capacity, m_timeouts.bulkCommandMs);
    if (got < 0) return DE_DEV_READ;
    if (got < 2) return DE_BAD_DATA_SIZE;
    if (got < MTDEV_FRAME_DATA_HEAD_BYTES + 1) return DE_BAD_VERSION;
    const uint8_t* s = raw->storage;
    if (s[0] != MTDEV_FRAME_DATA_MARK) return DE_BAD_VERSION;
    raw->frameMode = s[1];
    raw->frameNo = ReadLeU32(s + 4);
    std::memcpy(raw->header1, s + 8, 8);
    std::memcpy(raw->header2, s + 16, 8);
    raw->dataBytes = static_cast<uint16_t>(
        std::min<int>(ReadLeU16(s + 2), got - MTDEV_FRAME_DATA_HEAD_BYTES));
    raw->data = raw->storage + MTDEV_FRAME_DATA_HEAD_BYTES;
    FinishTransfer();
    return DE_OK;
}

DEV_ERR CMtDevController::GetDeviceInfo(_HARDWARE_DEV_INFO* info) {
    StartOperation(MTDEV_DEV_INFO_BYTES);
    if (info == nullptr) return DE_NULLPTR;
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    int length = MTDEV_DEV_INFO_BYTES;
    return Read(MTDEV_CMD_DEV_INFO, info->bytes, length);
}

DEV_ERR CMtDevController::SetDeviceInfo(_HARDWARE_DEV_INFO* info) {
    StartOperation(MTDEV_DEV_INFO_BYTES);
    if (info == nullptr) return DE_NULLPTR;
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    return Write(MTDEV_CMD_DEV_INFO, info->bytes, MTDEV_DEV_INFO_BYTES);
}

DEV_ERR CMtDevController::GetScanPatternFile(uint8_t* buffer, int& length) {
    if (buffer != nullptr) {
        StartOperation(static_cast<uint32_t>(length));
        if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
        return Read(MTDEV_CMD_SCAN_PATTERN, buffer, length);
    }
    StartOperation(6);
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    uint8_t head[MTDEV_REPORT_BYTES] = {};
    int got = 6;
    const DEV_ERR result = Read(MTDEV_CMD_SCAN_PATTERN, head, got);
    if (result != DE_OK) return result;
    if (got != 6) return DE_RW_LENGTH;
    const uint32_t size = ReadLeU32(head + 2);
    length = static_cast<int>(size);
    if (size < 6 || size > MTDEV_SCAN_PATTERN_MAX) return DE_BAD_DATA_SIZE;
    return DE_OK;
}

DEV_ERR CMtDevController::SetScanPatternFile(uint8_t* buffer, int length) {
    StartOperation(static_cast<uint32_t>(length));
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    return Write(MTDEV_CMD_SCAN_PATTERN, buffer, length);
}

DEV_ERR CMtDevController::GetDevStatus(uint8_t* buffer, int& length) {
    StartOperation(static_cast<uint32_t>(length));
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    return Read(MTDEV_CMD_DEV_STATUS, buffer, length);
}

DEV_ERR CMtDevController::SetDeviceConfig(_HARDWARE_DEV_CONFIG* config) {
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    if (config == nullptr) return DE_NULLPTR;
    const int size = EncodeDevConfig(config, nullptr);
    StartOperation(static_cast<uint32_t>(size));
    if (size < 1) return DE_BAD_PARAM;
    std::vector<uint8_t> block(static_cast<size_t>(size), 0);
    EncodeDevConfig(config, block.data());
    return Write(MTDEV_CMD_DEV_CONFIG, block.data(), size);
}

DEV_ERR CMtDevController::SetDeviceConfigOverride(_HARDWARE_CONFIG_OVERRIDE* override) {
    StartOperation(DEV_CONFIG_OVERRIDE_BYTES);
    if (override == nullptr) return DE_NULLPTR;
    const int size = EncodeDevConfigOverride(override, nullptr);
    if (size < 1) return DE_BAD_PARAM;
    std::vector<uint8_t> block(static_cast<size_t>(size), 0);
    EncodeDevConfigOverride(override, block.data());
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    return Write(MTDEV_CMD_CONFIG_OVERRIDE, block.data(), size);
}

DEV_ERR CMtDevController::SetTouchSystemFile(uint8_t* buffer, int length) {
    if (length < MTDEV_TOUCH_SYSTEM_MIN) return DE_BAD_PARAM;
    StartOperation(static_cast<uint32_t>(length));
    if (deviceType == MTDEV_TYPE_NONE) return DE_DEV_NOT_OPENED;
    return Write(MTDEV_CMD_TOUCH_SYSTEM, buffer, length);
}

DEV_ERR CMtDevController::ReadDate(uint8_t* buffer) {
    const int got = m_com.ReadHidDevCom(buffer, m_timeouts.hidReplyMs);
    if (got != MTDEV_REPORT_BYTES) return static_cast<DEV_ERR>(got);
    // Printed as text up to its first zero byte, and never beyond the report.
    const size_t n = strnlen(reinterpret_cast<const char*>(buffer), MTDEV_REPORT_BYTES);
    TLogStdout("package:%.*s\n", static_cast<int>(n), reinterpret_cast<const char*>(buffer));
    return DE_OK;
}

DEV_ERR CMtDevController::GetDeviceCache() {
    return 1;
}

DEV_ERR CMtDevController::SetDeviceCache() {
    return 2;
}

DEV_ERR CMtDevController::ClearCache() {
    return deviceType == MTDEV_TYPE_NONE ? DE_DEV_NOT_OPENED : DE_OK;
}

void CMtDevController::ClearHiSpeedCache() {}

void CMtDevController::ClearLoSpeedCache() {}
