#include "MtDevEmulator.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "LittleEndian.h"
#include "MtDevConfig.h"
#include "MtDevCtrlInterface.h"
#include "MtDevPorts.h"

namespace {

constexpr uint8_t kGarbageLead = 0x5A;  // first byte of a noise reply: no reply code

std::vector<uint8_t> Report(std::initializer_list<uint8_t> head) {
    std::vector<uint8_t> r(MTDEV_REPORT_BYTES, 0);
    std::copy(head.begin(), head.end(), r.begin());
    return r;
}

std::vector<uint8_t> AckReport(uint8_t code, uint32_t value) {
    std::vector<uint8_t> r = Report({MTDEV_REPLY_ACK, code});
    WriteLeU32(r.data() + 2, value);
    return r;
}

// The bytes of `data` from `offset`, at most `count`.
std::vector<uint8_t> Slice(const std::vector<uint8_t>& data, uint64_t offset, uint64_t count) {
    if (offset >= data.size()) return {};
    const uint64_t n = std::min<uint64_t>(count, data.size() - offset);
    return std::vector<uint8_t>(data.begin() + static_cast<std::ptrdiff_t>(offset),
                                data.begin() + static_cast<std::ptrdiff_t>(offset + n));
}

bool Matches(const TEmuFault& fault, const TEmuRequest& request) {
    return (fault.command == 0 || fault.command == request.command) &&
           (fault.notCommand == 0 || fault.notCommand != request.command) &&
           (fault.stage == TEmuStage::Any || fault.stage == request.stage);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Frames and defaults

TEmuFramePayload EmuCompactFrame(int16_t extentX, int16_t extentY,
                                 const std::vector<TEmuContact>& contacts) {
    TEmuFramePayload p{};
    const size_t n = std::min<size_t>(contacts.size(), 9);
    p[0] = FRAME_TAG_COMPACT;
    p[1] = static_cast<uint8_t>(n);
    WriteLeU16(&p[2], static_cast<uint16_t>(extentX));
    WriteLeU16(&p[4], static_cast<uint16_t>(extentY));
    for (size_t k = 0; k < n; ++k) {
        uint8_t* c = &p[6 + 6 * k];
        c[0] = contacts[k].id;
        c[1] = contacts[k].status;
        WriteLeU16(c + 2, contacts[k].x);
        WriteLeU16(c + 4, contacts[k].y);
    }
    return p;
}

TEmuFramePayload EmuExtendedFrame(int16_t logicalX, int16_t logicalY, uint16_t rawX, uint16_t rawY,
                                  const std::vector<TEmuContact>& contacts) {
    TEmuFramePayload p{};
    const size_t n = std::min<size_t>(contacts.size(), 5);
    p[0] = FRAME_TAG_EXTENDED;
    p[1] = static_cast<uint8_t>(n);
    WriteLeU16(&p[2], static_cast<uint16_t>(logicalX));
    WriteLeU16(&p[4], static_cast<uint16_t>(logicalY));
    WriteLeU16(&p[6], rawX);
    WriteLeU16(&p[8], rawY);
    for (size_t k = 0; k < n; ++k) {
        uint8_t* c = &p[10 + 10 * k];
        c[0] = contacts[k].id;
        c[1] = contacts[k].status;
        WriteLeU16(c + 2, contacts[k].x);
        WriteLeU16(c + 4, contacts[k].y);
        WriteLeU16(c + 6, static_cast<uint16_t>(contacts[k].width));
        WriteLeU16(c + 8, static_cast<uint16_t>(contacts[k].height));
    }
    return p;
}

std::vector<uint8_t> EmuDefaultConfigBlock() {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig(0, 0, config.get());
    DefaultDevCalConfig(0, 0, config.get());
    std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
    EncodeDevConfig(config.get(), block.data());
    return block;
}

CMtDevEmulator::CMtDevEmulator() {
    m_config = EmuDefaultConfigBlock();
    m_info.resize(MTDEV_DEV_INFO_BYTES);
    for (size_t i = 0; i < m_info.size(); ++i) m_info[i] = static_cast<uint8_t>(0x30 + i);
    // A scan pattern announces its own total size in bytes 2..5.
    m_scanPattern.resize(70);
    m_scanPattern[0] = MTDEV_CMD_SCAN_PATTERN;
    WriteLeU32(m_scanPattern.data() + 2, static_cast<uint32_t>(m_scanPattern.size()));
    for (size_t i = 6; i < m_scanPattern.size(); ++i) m_scanPattern[i] = static_cast<uint8_t>(i * 3);
    m_status = {0x00, 0x01, 0x02, 0x03, 0x10, 0x20, 0x30, 0x40};
    m_rawFrame.header1 = {1, 2, 3, 4, 5, 6, 7, 8};
    m_rawFrame.header2 = {9, 10, 11, 12, 13, 14, 15, 16};
    m_rawFrame.data.resize(100);
    for (size_t i = 0; i < m_rawFrame.data.size(); ++i) m_rawFrame.data[i] = static_cast<uint8_t>(i);
    m_idleFrame = EmuCompactFrame(16384, 16384, {});
}

CMtDevEmulator::~CMtDevEmulator() = default;

// ---------------------------------------------------------------------------------------------
// State

void CMtDevEmulator::SetConfigBlock(std::vector<uint8_t> block) {
    Lock lock(m_mutex);
    m_config = std::move(block);
}

std::vector<uint8_t> CMtDevEmulator::ConfigBlock() const {
    Lock lock(m_mutex);
    return m_config;
}

void CMtDevEmulator::SetDeviceInfo(std::vector<uint8_t> info) {
    Lock lock(m_mutex);
    m_info = std::move(info);
}

std::vector<uint8_t> CMtDevEmulator::DeviceInfo() const {
    Lock lock(m_mutex);
    return m_info;
}

void CMtDevEmulator::SetScanPattern(std::vector<uint8_t> pattern) {
    Lock lock(m_mutex);
    m_scanPattern = std::move(pattern);
}

std::vector<uint8_t> CMtDevEmulator::ScanPattern() const {
    Lock lock(m_mutex);
    return m_scanPattern;
}

void CMtDevEmulator::SetStatus(std::vector<uint8_t> status) {
    Lock lock(m_mutex);
    m_status = std::move(status);
}

void CMtDevEmulator::SetRawFrame(TEmuRawFrame frame) {
    Lock lock(m_mutex);
    m_rawFrame = std::move(frame);
}

void CMtDevEmulator::SetReadData(uint8_t command, std::vector<uint8_t> data) {
    Lock lock(m_mutex);
    m_otherData[command] = std::move(data);
}

void CMtDevEmulator::SetPieceBytes(int bytes) {
    Lock lock(m_mutex);
    m_pieceBytes = std::clamp(bytes, 0, MTDEV_PIECE_DATA_BYTES);
}

void CMtDevEmulator::QueueFrame(const TEmuFramePayload& payload) {
    Lock lock(m_mutex);
    m_frames.push_back(payload);
}

void CMtDevEmulator::SetFrameSource(TEmuFrameSource source) {
    Lock lock(m_mutex);
    m_frameSource = std::move(source);
}

void CMtDevEmulator::SetIdleFrame(const TEmuFramePayload& payload) {
    Lock lock(m_mutex);
    m_idleFrame = payload;
}

size_t CMtDevEmulator::QueuedFrames() const {
    Lock lock(m_mutex);
    return m_frames.size();
}

uint64_t CMtDevEmulator::FramesServed() const {
    Lock lock(m_mutex);
    return m_framesServed;
}

void CMtDevEmulator::InjectFault(const TEmuFault& fault) {
    Lock lock(m_mutex);
    m_faults.push_back(fault);
}

size_t CMtDevEmulator::PendingFaults() const {
    Lock lock(m_mutex);
    return m_faults.size();
}

void CMtDevEmulator::ClearFaults() {
    Lock lock(m_mutex);
    m_faults.clear();
}

bool CMtDevEmulator::Vanished() const {
    Lock lock(m_mutex);
    return m_vanished;
}

void CMtDevEmulator::SetVanishHook(std::function<void()> hook) {
    Lock lock(m_mutex);
    m_vanishHook = std::move(hook);
}

std::vector<TEmuRequest> CMtDevEmulator::Requests() const {
    Lock lock(m_mutex);
    return m_requests;
}

size_t CMtDevEmulator::RequestCount() const {
    Lock lock(m_mutex);
    return m_requests.size();
}

void CMtDevEmulator::WaitForRequests(size_t n) const {
    Lock lock(m_mutex);
    m_requestsChanged.wait(lock, [&] { return m_requests.size() >= n; });
}

void CMtDevEmulator::ClearRequests() {
    Lock lock(m_mutex);
    m_requests.clear();
}

std::vector<TEmuWrite> CMtDevEmulator::Writes() const {
    Lock lock(m_mutex);
    return m_writes;
}

bool CMtDevEmulator::LastWrite(uint8_t command, TEmuWrite* write) const {
    Lock lock(m_mutex);
    for (auto it = m_writes.rbegin(); it != m_writes.rend(); ++it) {
        if (it->command == command) {
            if (write != nullptr) *write = *it;
            return true;
        }
    }
    return false;
}

size_t CMtDevEmulator::WriteCount(uint8_t command) const {
    Lock lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_writes.begin(), m_writes.end(),
                                             [command](const TEmuWrite& w) { return w.command == command; }));
}

void CMtDevEmulator::KeepRequestLog(bool keep) {
    Lock lock(m_mutex);
    m_keepRequestLog = keep;
    if (!keep) m_requests.clear();
}

void CMtDevEmulator::Record(const TEmuRequest& request) {
    if (m_keepRequestLog) m_requests.push_back(request);
    m_requestsChanged.notify_all();
}

const std::vector<uint8_t>* CMtDevEmulator::ReadData(uint8_t command) const {
    switch (command) {
        case MTDEV_CMD_DEV_INFO:
            return &m_info;
        case MTDEV_CMD_SCAN_PATTERN:
            return &m_scanPattern;
        case MTDEV_CMD_DEV_CONFIG:
            return &m_config;
        case MTDEV_CMD_DEV_STATUS:
            return &m_status;
        default: {
            auto it = m_otherData.find(command);
            return it != m_otherData.end() ? &it->second : nullptr;
        }
    }
}

void CMtDevEmulator::StoreWrite(TEmuWrite write) {
    // What was written becomes what the device holds.
    switch (write.command) {
        case MTDEV_CMD_DEV_INFO:
            m_info = write.data;
            break;
        case MTDEV_CMD_SCAN_PATTERN:
            m_scanPattern = write.data;
            break;
        case MTDEV_CMD_DEV_CONFIG:
            m_config = write.data;
            break;
        case MTDEV_CMD_CONFIG_OVERRIDE:
            ApplyOverride(write.data);
            break;
        default:
            m_otherData[write.command] = write.data;  // read back by the same command
            break;
    }
    m_writes.push_back(std::move(write));
}

void CMtDevEmulator::ApplyOverride(const std::vector<uint8_t>& block) {
    // The override changes the general options and the first area's edges of the stored
    // configuration; a block that is not one is ignored, as is a configuration that is none.
    if (block.size() < static_cast<size_t>(DEV_CONFIG_OVERRIDE_BYTES) ||
        block[2] != DEV_CONFIG_BLOCK_TAG) {
        return;
    }
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    if (DecodeDevConfig(m_config.data(), static_cast<int>(m_config.size()), config.get()) !=
        DEV_CONFIG_DECODE_OK) {
        return;
    }
    config->option1 = block[3];
    config->option2 = block[4];
    config->option3 = block[5];
    config->value0 = ReadLeU16(&block[6]);
    config->value1 = ReadLeU16(&block[8]);
    config->flags = ReadLeU32(&block[10]);
    if (config->areaCount > 0) std::memcpy(config->areas[0].edgeAdjust, &block[14], 4);
    std::vector<uint8_t> encoded(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
    EncodeDevConfig(config.get(), encoded.data());
    m_config = std::move(encoded);
}

std::vector<uint8_t> CMtDevEmulator::Garbage(size_t bytes) {
    std::vector<uint8_t> noise(bytes);
    for (uint8_t& b : noise) {
        m_noise ^= m_noise << 13;
        m_noise ^= m_noise >> 17;
        m_noise ^= m_noise << 5;
        b = static_cast<uint8_t>(m_noise);
    }
    if (!noise.empty()) noise[0] = kGarbageLead;
    return noise;
}

bool CMtDevEmulator::TakeFault(const TEmuRequest& request, TEmuFault* fault) {
    bool taken = false;
    for (auto it = m_faults.begin(); it != m_faults.end();) {
        if (!Matches(*it, request)) {
            ++it;
            continue;
        }
        if (it->skip > 0) {
            --it->skip;
            ++it;
            continue;
        }
        if (taken) {
            ++it;
            continue;
        }
        *fault = *it;
        it = m_faults.erase(it);
        taken = true;
    }
    return taken;
}

// ---------------------------------------------------------------------------------------------
// Lo-speed dialect (HID reports)

bool CMtDevEmulator::OnHidOutput(const uint8_t* report, size_t length,
                                 std::vector<TEmuReply>* replies) {
    Lock lock(m_mutex);
    replies->clear();
    if (m_vanished) return false;
    if (report == nullptr || length == 0) return true;

    TEmuRequest request{};
    m_hasPendingStore = false;
    HandleLo(report, length, replies, &request);
    Record(request);

    TEmuFault fault{};
    const bool faulted = TakeFault(request, &fault);
    if (faulted && fault.kind == TEmuFaultKind::Vanish) {
        if (m_vanishHook) m_vanishHook();
        m_vanished = true;
        replies->clear();
        return false;
    }
    if (faulted) ApplyHidFault(fault, request, replies);
    if (m_hasPendingStore) StoreWrite(std::move(m_pendingStore));
    m_hasPendingStore = false;
    return true;
}

void CMtDevEmulator::HandleLo(const uint8_t* report, size_t length,
                              std::vector<TEmuReply>* replies, TEmuRequest* request) {
    request->hiSpeed = false;
    request->bytes = length;
    request->kind = report[0];
    request->stage = TEmuStage::Request;

    if (length >= 4 && report[0] == MTDEV_PACKET_END && report[1] == 'E' && report[2] == 'O' &&
        report[3] == 'D') {
        request->stage = TEmuStage::End;
        request->command = m_loWriting ? m_loWriteCommand : 0;
        if (m_loWriting) {
            m_pendingStore = TEmuWrite{false, m_loWriteCommand, m_loWriteData, 0,
                                       m_loWriteData.size(), m_loWritePieces};
            m_hasPendingStore = true;
            m_loWriting = false;
        }
        replies->push_back({AckReport(MTDEV_REPLY_END_OK, 0)});
        return;
    }

    if (report[0] == MTDEV_PACKET_DATA && m_loWriting && length >= MTDEV_REPORT_BYTES) {
        request->stage = TEmuStage::Data;
        request->command = m_loWriteCommand;
        const uint32_t sequence = ReadLeU32(report + 1);
        request->parameter = sequence;
        const int n = std::min<int>(report[63], MTDEV_PIECE_DATA_BYTES);
        m_loWriteData.insert(m_loWriteData.end(), report + 5, report + 5 + n);
        ++m_loWritePieces;
        replies->push_back({AckReport(MTDEV_REPLY_PIECE_OK, sequence | MTDEV_PIECE_ACK_MARK)});
        return;
    }

    // A command packet: the command sits where byte 5 says.
    if (length < 6) return;
    const size_t packetLength = std::min<size_t>(report[0], length);
    const size_t position = report[5];
    if (position >= packetLength) return;
    request->command = report[position];
    request->parameter = ReadLeU32(report + 1);

    switch (report[0]) {
        case MTDEV_PACKET_READ:
            if (request->command == MTDEV_CMD_FRAME_SDK) {
                replies->push_back({FrameReply()});
            } else if (request->command == MTDEV_CMD_FRAME_DATA) {
                LoFrameData(request->parameter, replies);
            } else {
                LoRead(request->command, request->parameter, replies);
            }
            break;
        case MTDEV_PACKET_WRITE:
            m_loWriting = true;
            m_loWriteCommand = request->command;
            m_loWriteData.clear();
            m_loWritePieces = 0;
            replies->push_back({AckReport(MTDEV_REPLY_WRITE_OK, 4)});
            break;
        default:
            // Plain commands (close, process, protect) have no reply.
            break;
    }
}

std::vector<uint8_t> CMtDevEmulator::FrameReply() {
    TEmuFramePayload payload = m_idleFrame;
    if (!m_frames.empty()) {
        payload = m_frames.front();
        m_frames.pop_front();
    } else if (m_frameSource) {
        TEmuFramePayload fresh{};
        if (m_frameSource(fresh)) payload = fresh;
    }
    ++m_framesServed;
    std::vector<uint8_t> reply(MTDEV_REPORT_BYTES);
    reply[0] = MTDEV_REPLY_DATA;
    std::copy(payload.begin(), payload.end(), reply.begin() + 1);
    return reply;
}

void CMtDevEmulator::LoRead(uint8_t command, uint32_t parameter,
                            std::vector<TEmuReply>* replies) {
    static const std::vector<uint8_t> kEmpty;
    const std::vector<uint8_t>* found = ReadData(command);
    const std::vector<uint8_t>& data = found != nullptr ? *found : kEmpty;
    if (parameter == MTDEV_SIZE_QUERY) {
        m_stallRemaining = 0;  // a new read: a stall ended with the one before
        replies->push_back({AckReport(MTDEV_REPLY_END, static_cast<uint32_t>(data.size()))});
        return;
    }
    LoReadFrom(data, parameter, replies);
}

void CMtDevEmulator::LoReadFrom(const std::vector<uint8_t>& data, uint32_t piece,
                                std::vector<TEmuReply>* replies) {
    if (piece == 0) {  // a new read: a stall ended with the one before
        m_stallShift = 0;
        m_stallRemaining = 0;
    }
    if (m_stallRemaining > 0) {
        --m_stallRemaining;
        ++m_stallShift;
        std::vector<uint8_t> empty = Report({MTDEV_REPLY_DATA});
        WriteLeU32(empty.data() + 1, piece);
        replies->push_back({std::move(empty), m_stallDelayMs});
        return;
    }
    piece -= std::min(piece, m_stallShift);
    const uint64_t offset = static_cast<uint64_t>(piece) * static_cast<uint64_t>(m_pieceBytes);
    // Past the end (or nothing to serve): end of data.
    if (offset >= data.size()) {
        replies->push_back({AckReport(MTDEV_REPLY_END, static_cast<uint32_t>(data.size()))});
        return;
    }
    const std::vector<uint8_t> bytes = Slice(data, offset, static_cast<uint64_t>(m_pieceBytes));
    std::vector<uint8_t> reply = Report({MTDEV_REPLY_DATA});
    WriteLeU32(reply.data() + 1, piece);
    std::copy(bytes.begin(), bytes.end(), reply.begin() + 5);
    reply[63] = static_cast<uint8_t>(bytes.size());
    replies->push_back({std::move(reply)});
}

void CMtDevEmulator::LoFrameData(uint32_t parameter, std::vector<TEmuReply>* replies) {
    if (parameter == MTDEV_SIZE_QUERY) {
        std::vector<uint8_t> reply = Report({MTDEV_REPLY_DATA});
        reply[5] = MTDEV_FRAME_DATA_MARK;
        reply[6] = m_rawFrame.frameMode;
        WriteLeU32(reply.data() + 9, m_rawFrame.frameNo);
        std::copy(m_rawFrame.header1.begin(), m_rawFrame.header1.end(), reply.begin() + 13);
        std::copy(m_rawFrame.header2.begin(), m_rawFrame.header2.end(), reply.begin() + 21);
        replies->push_back({std::move(reply)});
        return;
    }
    LoReadFrom(m_rawFrame.data, parameter, replies);
}

void CMtDevEmulator::ApplyHidFault(const TEmuFault& fault, const TEmuRequest& request,
                                  std::vector<TEmuReply>* replies) {
    switch (fault.kind) {
        case TEmuFaultKind::DropReply:
            replies->clear();
            break;
        case TEmuFaultKind::LateReply:
            for (TEmuReply& r : *replies) r.delayMs = static_cast<unsigned>(std::max(0, fault.value));
            break;
        case TEmuFaultKind::Garbage:
            for (TEmuReply& r : *replies) r.bytes = Garbage(MTDEV_REPORT_BYTES);
            break;
        case TEmuFaultKind::WrongCode:
            if (!replies->empty() && replies->front().bytes.size() >= 2) {
                std::vector<uint8_t>& b = replies->front().bytes;
                if (b[0] == MTDEV_REPLY_ACK) {
                    b[1] = b[1] == MTDEV_REPLY_WRITE_OK ? MTDEV_REPLY_PIECE_OK : MTDEV_REPLY_WRITE_OK;
                } else {
                    b[0] = static_cast<uint8_t>(b[0] + 1);
                }
            }
            break;
        case TEmuFaultKind::ShortReply:
            // A report of at least one byte: an empty one would read like a closed link.
            for (TEmuReply& r : *replies) {
                r.bytes.resize(static_cast<size_t>(std::clamp(fault.value, 1, MTDEV_REPORT_BYTES)));
            }
            break;
        case TEmuFaultKind::RefuseWrite:
            if (!replies->empty() && replies->front().bytes.size() >= 6 &&
                replies->front().bytes[0] == MTDEV_REPLY_ACK) {
                std::vector<uint8_t>& b = replies->front().bytes;
                if (b[1] == MTDEV_REPLY_WRITE_OK) {
                    WriteLeU32(b.data() + 2, 0);  // not the 4 that accepts the write
                    m_loWriting = false;
                } else if (b[1] == MTDEV_REPLY_PIECE_OK) {
                    WriteLeU32(b.data() + 2, ReadLeU32(b.data() + 2) + 1);  // echoes another piece
                    m_loWriting = false;
                }
            }
            break;
        case TEmuFaultKind::FirmwareStatus:
            if (request.stage == TEmuStage::End && !replies->empty()) {
                replies->front().bytes[1] = static_cast<uint8_t>(fault.value != 0 ? fault.value : 1);
                m_hasPendingStore = false;
            }
            break;
        case TEmuFaultKind::Stall:
            // Only a data piece of a read stalls; this one becomes the first empty reply.
            if (request.stage == TEmuStage::Request && request.kind == MTDEV_PACKET_READ &&
                request.parameter != MTDEV_SIZE_QUERY && !replies->empty() &&
                replies->front().bytes[0] == MTDEV_REPLY_DATA) {
                m_stallRemaining = std::max(0, fault.count - 1);
                m_stallDelayMs = static_cast<unsigned>(std::max(0, fault.value));
                std::vector<uint8_t> empty = Report({MTDEV_REPLY_DATA});
                WriteLeU32(empty.data() + 1, request.parameter);
                *replies = {{std::move(empty), m_stallDelayMs}};
                ++m_stallShift;
            }
            break;
        case TEmuFaultKind::StallPipe:
        case TEmuFaultKind::Vanish:
            break;
    }
}

// ---------------------------------------------------------------------------------------------
// Hi-speed dialect (USB bulk pipes)

TEmuRequest CMtDevEmulator::ClassifyHi(const uint8_t* data, uint32_t size) const {
    TEmuRequest request{};
    request.hiSpeed = true;
    request.bytes = size;
    request.stage = TEmuStage::Request;
    if (m_hiWriting && m_hiWriteData.size() < m_hiRounded) {
        request.stage = TEmuStage::Data;
        request.command = m_hiWriteCommand;
        return request;
    }
    if (size != MTDEV_HI_PACKET_BYTES || data == nullptr) return request;
    request.kind = data[0];
    request.parameter = ReadLeU32(data + 1);
    if (data[5] < MTDEV_HI_PACKET_BYTES) request.command = data[data[5]];
    if (request.kind == MTDEV_PACKET_END) request.stage = TEmuStage::End;
    return request;
}

void CMtDevEmulator::HandleHi(const uint8_t* data, uint32_t size, const TEmuRequest& request,
                              std::vector<std::vector<uint8_t>>* in) {
    if (request.stage == TEmuStage::Data) {
        m_hiWriteData.insert(m_hiWriteData.end(), data, data + size);
        return;
    }
    if (size != MTDEV_HI_PACKET_BYTES || data[5] >= MTDEV_HI_PACKET_BYTES) return;
    static const std::vector<uint8_t> kEmpty;
    switch (request.kind) {
        case MTDEV_PACKET_READ: {
            if (request.command == MTDEV_CMD_FRAME_DATA) {
                const uint16_t capacity = ReadLeU16(data + 6);
                // Sized once: growing it by insert trips a false array-bounds warning in
                // instrumented builds.
                std::vector<uint8_t> frame(MTDEV_FRAME_DATA_HEAD_BYTES + m_rawFrame.data.size(), 0);
                frame[0] = MTDEV_FRAME_DATA_MARK;
                frame[1] = m_rawFrame.frameMode;
                WriteLeU16(frame.data() + 2, static_cast<uint16_t>(m_rawFrame.data.size()));
                WriteLeU32(frame.data() + 4, m_rawFrame.frameNo);
                std::copy(m_rawFrame.header1.begin(), m_rawFrame.header1.end(), frame.begin() + 8);
                std::copy(m_rawFrame.header2.begin(), m_rawFrame.header2.end(), frame.begin() + 16);
                std::copy(m_rawFrame.data.begin(), m_rawFrame.data.end(),
                          frame.begin() + MTDEV_FRAME_DATA_HEAD_BYTES);
                if (frame.size() > capacity) frame.resize(capacity);
                in->push_back(std::move(frame));
                break;
            }
            const std::vector<uint8_t>* found = ReadData(request.command);
            const std::vector<uint8_t>& d = found != nullptr ? *found : kEmpty;
            const uint32_t p = request.parameter;
            if (p == MTDEV_SIZE_QUERY) {
                in->push_back(d);  // the answer's length is the size
            } else if ((p >> 16) == 0) {
                in->push_back(Slice(d, static_cast<uint64_t>(p) * MTDEV_HI_BLOCK_BYTES,
                                    MTDEV_HI_BLOCK_BYTES));
            } else {
                // The rest after `whole` blocks: (rest << 16) | whole.
                in->push_back(Slice(d, static_cast<uint64_t>(p & 0xFFFF) * MTDEV_HI_BLOCK_BYTES,
                                    p >> 16));
            }
            break;
        }
        case MTDEV_PACKET_WRITE:
            m_hiWriting = true;
            m_hiWriteCommand = request.command;
            m_hiAnnounced = request.parameter;
            m_hiRounded = (static_cast<uint64_t>(request.parameter) + 63) / 64 * 64;
            m_hiWriteData.clear();
            in->push_back({MTDEV_REPLY_WRITE_OK, 0x04});
            break;
        case MTDEV_PACKET_END:
            if (m_hiWriting) {
                std::vector<uint8_t> written = m_hiWriteData;
                const size_t received = written.size();
                if (written.size() > m_hiAnnounced) written.resize(m_hiAnnounced);
                m_pendingStore = TEmuWrite{true, m_hiWriteCommand, std::move(written), m_hiAnnounced,
                                           received, 0};
                m_hasPendingStore = true;
                m_hiWriting = false;
            }
            in->push_back({MTDEV_REPLY_END_OK, 0x00});
            break;
        default:
            break;  // plain commands have no answer
    }
}

void CMtDevEmulator::ApplyBulkFault(const TEmuFault& fault, const TEmuRequest& request,
                                   std::vector<std::vector<uint8_t>>* in, unsigned* delayMs) {
    switch (fault.kind) {
        case TEmuFaultKind::DropReply:
            in->clear();
            break;
        case TEmuFaultKind::LateReply:
            *delayMs = static_cast<unsigned>(std::max(0, fault.value));
            break;
        case TEmuFaultKind::Garbage:
            for (std::vector<uint8_t>& t : *in) t = Garbage(std::max<size_t>(t.size(), 2));
            break;
        case TEmuFaultKind::WrongCode:
            if (!in->empty() && !in->front().empty()) {
                uint8_t& code = in->front()[0];
                if (code == MTDEV_REPLY_WRITE_OK) {
                    code = MTDEV_REPLY_END_OK;
                } else if (code == MTDEV_REPLY_END_OK) {
                    code = MTDEV_REPLY_WRITE_OK;
                } else {
                    code = static_cast<uint8_t>(code + 1);
                }
            }
            break;
        case TEmuFaultKind::ShortReply:
            for (std::vector<uint8_t>& t : *in) {
                t.resize(std::min<size_t>(t.size(), static_cast<size_t>(std::max(0, fault.value))));
            }
            break;
        case TEmuFaultKind::RefuseWrite:
            if (request.kind == MTDEV_PACKET_WRITE && request.stage == TEmuStage::Request &&
                !in->empty()) {
                in->front() = {MTDEV_REPLY_WRITE_OK, 0x00};
                m_hiWriting = false;
            }
            break;
        case TEmuFaultKind::FirmwareStatus:
            if (request.stage == TEmuStage::End && !in->empty()) {
                in->front() = {MTDEV_REPLY_END_OK,
                               static_cast<uint8_t>(fault.value != 0 ? fault.value : 1)};
                m_hasPendingStore = false;
            }
            break;
        case TEmuFaultKind::StallPipe:
            if (fault.value == 0) m_stallsPending[0] = std::max(1, fault.count);
            break;
        case TEmuFaultKind::Stall:  // a lo-speed read's fault
        case TEmuFaultKind::Vanish:
            break;
    }
}

int CMtDevEmulator::BulkWrite(const uint8_t* data, uint32_t size) {
    Lock lock(m_mutex);
    if (m_vanished) return kMtUsbNotResponding;
    if (data == nullptr && size != 0) return kMtUsbError;
    if (m_stalled[1]) return kMtUsbPipeStalled;
    if (m_stallsPending[1] > 0) {
        --m_stallsPending[1];
        m_stalled[1] = true;
        return kMtUsbPipeStalled;
    }

    const TEmuRequest request = ClassifyHi(data, size);
    TEmuFault fault{};
    const bool faulted = TakeFault(request, &fault);
    if (faulted && fault.kind == TEmuFaultKind::StallPipe && fault.value == 1) {
        // The OUT pipe stalls on this transfer: nothing is taken.
        m_stallsPending[1] = std::max(1, fault.count) - 1;
        m_stalled[1] = true;
        return kMtUsbPipeStalled;
    }
    Record(request);
    if (faulted && fault.kind == TEmuFaultKind::Vanish) {
        if (m_vanishHook) m_vanishHook();
        m_vanished = true;  // the transfer went out; nothing answers it
        return kMtUsbSuccess;
    }

    std::vector<std::vector<uint8_t>> in;
    unsigned delayMs = 0;
    m_hasPendingStore = false;
    HandleHi(data, size, request, &in);
    if (faulted) ApplyBulkFault(fault, request, &in, &delayMs);
    if (m_hasPendingStore) StoreWrite(std::move(m_pendingStore));
    m_hasPendingStore = false;
    for (std::vector<uint8_t>& t : in) m_in.push_back({std::move(t), delayMs, -1});
    return kMtUsbSuccess;
}

int CMtDevEmulator::BulkRead(uint8_t* buffer, uint32_t* size, uint64_t nowMicros,
                             int64_t* readyAtMicros) {
    Lock lock(m_mutex);
    if (readyAtMicros != nullptr) *readyAtMicros = -1;
    if (m_vanished) return kMtUsbNotResponding;
    if (buffer == nullptr || size == nullptr) return kMtUsbError;
    if (m_stalled[0]) return kMtUsbPipeStalled;
    if (m_stallsPending[0] > 0) {
        --m_stallsPending[0];
        m_stalled[0] = true;
        return kMtUsbPipeStalled;
    }
    if (m_in.empty()) return kMtUsbTransactionTimeout;
    TInTransfer& head = m_in.front();
    if (head.readyAt < 0) head.readyAt = static_cast<int64_t>(nowMicros) + head.delayMs * 1000ll;
    if (head.readyAt > static_cast<int64_t>(nowMicros)) {
        if (readyAtMicros != nullptr) *readyAtMicros = head.readyAt;
        return kMtUsbTransactionTimeout;
    }
    // A transfer longer than the read takes what fits; the rest is lost.
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(*size, head.bytes.size()));
    if (n > 0) std::memcpy(buffer, head.bytes.data(), n);
    *size = n;
    m_in.pop_front();
    return kMtUsbSuccess;
}

bool CMtDevEmulator::PipeStalled(bool in) const {
    Lock lock(m_mutex);
    return m_stalled[in ? 0 : 1];
}

void CMtDevEmulator::ClearPipeStall(bool in) {
    Lock lock(m_mutex);
    m_stalled[in ? 0 : 1] = false;
}
