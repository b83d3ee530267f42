// The standard digitizer's uhid side, with the test playing the kernel over a SOCK_SEQPACKET
// socketpair (one event per message, as the node reads and writes them).
#include "UhidDigitizer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace {

class CFakeKernel {
public:
    CFakeKernel() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        deviceEnd = pair[0];
        m_fd = pair[1];
    }
    ~CFakeKernel() { close(m_fd); }

    // The next event written by the digitizer; type 0xFFFFFFFF when none came within 5 s.
    std::unique_ptr<uhid_event> Read() {
        auto event = std::make_unique<uhid_event>();
        std::memset(event.get(), 0, sizeof *event);
        event->type = 0xFFFFFFFFu;
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 5000) == 1) (void)recv(m_fd, event.get(), sizeof *event, 0);
        return event;
    }

    void Request(uint32_t type, uint32_t id, uint8_t rnum, uint8_t rtype) {
        uhid_event e{};
        e.type = type;
        if (type == UHID_GET_REPORT) {
            e.u.get_report = {id, rnum, rtype};
        } else {
            e.u.set_report.id = id;
            e.u.set_report.rnum = rnum;
            e.u.set_report.rtype = rtype;
        }
        ASSERT_EQ(send(m_fd, &e, sizeof e, 0), static_cast<ssize_t>(sizeof e));
    }

    int deviceEnd = -1;

private:
    int m_fd = -1;
};

TEST(UhidDigitizer, CreatesAndAnswersFeatureRequests) {
    CFakeKernel kernel;
    CUhidDigitizer digitizer;
    std::string error;
    ASSERT_TRUE(digitizer.Adopt(kernel.deviceEnd, "native digitizer", &error)) << error;
    const auto create = kernel.Read();
    ASSERT_EQ(create->type, static_cast<uint32_t>(UHID_CREATE2));
    EXPECT_STREQ(reinterpret_cast<const char*>(create->u.create2.name), "native digitizer");
    const std::vector<uint8_t> descriptor = DigitizerReportDescriptor();
    ASSERT_EQ(create->u.create2.rd_size, descriptor.size());
    EXPECT_EQ(std::memcmp(create->u.create2.rd_data, descriptor.data(), descriptor.size()), 0);

    struct TRequest {
        uint32_t type;
        uint8_t rnum, rtype;
        uint32_t replyType;
        uint16_t err;
    };
    const TRequest requests[] = {
        {UHID_GET_REPORT, kDigitizerMaxCountId, UHID_FEATURE_REPORT, UHID_GET_REPORT_REPLY, 0},
        {UHID_GET_REPORT, 7, UHID_FEATURE_REPORT, UHID_GET_REPORT_REPLY, EIO},
        {UHID_GET_REPORT, kDigitizerMaxCountId, UHID_INPUT_REPORT, UHID_GET_REPORT_REPLY, EIO},
        {UHID_SET_REPORT, 3, UHID_FEATURE_REPORT, UHID_SET_REPORT_REPLY, EIO},
    };
    uint32_t id = 40;
    for (const TRequest& r : requests) {
        kernel.Request(r.type, ++id, r.rnum, r.rtype);
        const auto reply = kernel.Read();
        ASSERT_EQ(reply->type, r.replyType);
        if (r.type == UHID_GET_REPORT) {
            EXPECT_EQ(reply->u.get_report_reply.id, id);
            EXPECT_EQ(reply->u.get_report_reply.err, r.err);
            if (r.err == 0) {
                ASSERT_EQ(reply->u.get_report_reply.size, 2);
                EXPECT_EQ(reply->u.get_report_reply.data[0], kDigitizerMaxCountId);
                EXPECT_EQ(reply->u.get_report_reply.data[1], kDigitizerFingers);
            }
        } else {
            EXPECT_EQ(reply->u.set_report_reply.id, id);
            EXPECT_EQ(reply->u.set_report_reply.err, r.err);
        }
    }
    EXPECT_EQ(digitizer.FeatureRequests(), 1u);

    uint64_t sent = 0;
    ASSERT_TRUE(digitizer.Send({{true, 5, 0x1234, 0x0102}}, &sent));
    EXPECT_GT(sent, 0u);
    const auto input = kernel.Read();
    ASSERT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
    const std::vector<uint8_t> expected = DigitizerInputReport({{true, 5, 0x1234, 0x0102}});
    ASSERT_EQ(input->u.input2.size, expected.size());
    EXPECT_EQ(std::memcmp(input->u.input2.data, expected.data(), expected.size()), 0);

    digitizer.Destroy();
    EXPECT_EQ(kernel.Read()->type, static_cast<uint32_t>(UHID_DESTROY));
}

TEST(UhidDigitizer, InputReportLayout) {
    // Per finger: tip byte, contact id, X and Y little-endian; then the contact count. Values
    // beyond the axis are clamped and contacts beyond the finger collections left out.
    const std::vector<uint8_t> report = DigitizerInputReport(
        {{true, 3, 0x1234, 0x0102}, {false, 0xFF, 0xFFFF, 7}, {true, 9, 1, 1}});
    const std::vector<uint8_t> expected = {kDigitizerInputId,
                                           1, 3, 0x34, 0x12, 0x02, 0x01,
                                           0, 0x7F, 0xFF, 0x7F, 7, 0,
                                           2};
    EXPECT_EQ(report, expected);
    EXPECT_EQ(DigitizerInputReport({}).back(), 0);
}

}  // namespace
