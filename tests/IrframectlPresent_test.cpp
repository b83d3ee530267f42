#include "Present.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "Commands.h"
#include "support/ChildProcess.h"

namespace {

TFrameEntry Frame(int number, const std::string& node, const std::string& serial) {
    TFrameEntry d;
    d.number = number;
    d.node = node;
    d.serial = serial;
    return d;
}

// The number of the frame picked, or minus the exit code of the error.
int Picked(const std::vector<TFrameEntry>& frames, const std::string& wanted) {
    try {
        return PickFrame(frames, wanted).number;
    } catch (const CToolError& e) {
        return -e.ExitCode();
    }
}

TEST(IrframectlPresent, PickFrameByNumberNodeOrSerial) {
    const std::vector<TFrameEntry> frames = {Frame(1, "/dev/hidraw3", "A1"),
                                             Frame(2, "/dev/hidraw12", "7"),
                                             Frame(3, "usb:001:004", "7")};
    struct {
        const char* wanted;
        int picked;
    } const cases[] = {
        {"2", 2},  {"/dev/hidraw12", 2}, {"hidraw3", 1}, {"usb:001:004", 3}, {"4", -kCtlNoFrame},
        {"A1", 1}, {"hidraw", -kCtlNoFrame}, {"/dev/hidraw", -kCtlNoFrame},
        {"", -kCtlUsage},   // several frames, none named
        {"7", -kCtlUsage},  // number 7 is no frame, serial 7 is two
    };
    for (const auto& c : cases) EXPECT_EQ(Picked(frames, c.wanted), c.picked) << c.wanted;
    EXPECT_EQ(Picked({Frame(5, "/dev/hidraw0", "")}, ""), 5);
    EXPECT_EQ(Picked({}, ""), -kCtlNoFrame);
}

TEST(IrframectlPresent, PlaceOfAContact) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0, sizeof *config);
    auto withAreas = std::make_unique<_HARDWARE_DEV_CONFIG>(*config);
    withAreas->flags = DEV_FLAG_AREAS_ENABLED;
    withAreas->areaCount = 2;
    struct {
        uint8_t group, index;
        bool areas;
        const char* kind;
        int number;
    } const cases[] = {
        {0xFF, 0xFF, true, "outside", -1}, {0xFF, 2, false, "panel", 2},
        {0, 1, true, "area", 1},           {0, 0, false, "default", -1},
    };
    for (const auto& c : cases) {
        TMonitoredContact contact;
        contact.cellGroup = c.group;
        contact.cellIndex = c.index;
        const TContactPlace place = PlaceOf(contact, c.areas ? *withAreas : *config);
        EXPECT_EQ(place.kind, c.kind);
        EXPECT_EQ(place.index, c.number);
    }
}

TEST(IrframectlPresent, ContactJsonCarriesEveryField) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0, sizeof *config);
    const TMonitoredContact c{.id = 4, .status = 2, .retired = true, .x = 100, .y = 32766,
                              .width = 7, .height = 8, .rawX = 65535, .rawY = 3, .cellGroup = 0xFF,
                              .cellIndex = 1};
    EXPECT_EQ(ContactJson(2, c, 6800000004010000, *config),
              R"({"frame":2,"timeStamp":6800000004010000,"id":4,"status":2,"retired":true,)"
              R"("x":100,"y":32766,"width":7,"height":8,"rawX":65535,"rawY":3,"cell":[255,1],)"
              R"("place":"panel","index":1})");
}

TEST(IrframectlPresent, ProgressWithoutTerminalIsOneLinePerPercent) {
    std::ostringstream plain;
    CProgressDisplay display(plain, "scan pattern", false);
    for (uint32_t done : {0u, 1u, 2u, 50u, 99u, 100u, 100u}) display.Update(done, 100);
    display.Update(5, 0);  // total not known yet: nothing
    display.Finish();
    EXPECT_EQ(plain.str(), "scan pattern: 0%\nscan pattern: 1%\nscan pattern: 2%\n"
                           "scan pattern: 50%\nscan pattern: 99%\nscan pattern: 100%\n");

    std::ostringstream bar;
    CProgressDisplay drawn(bar, "file", true);
    drawn.Update(1, 4);
    drawn.Finish();
    EXPECT_EQ(bar.str(), "\rfile [#######.......................]  25%  1/4 bytes\n");
}

TEST(IrframectlPresent, BackupNameNeverReplacesAnExistingFile) {
    const CScratchDir scratch("irframectl_present");
    const std::string dir = scratch.Dir();
    const std::string first = BackupPathFor(dir + "/lobby.json", "20260101-120000");
    EXPECT_EQ(first, dir + "/lobby.replaced-20260101-120000.json");
    std::ofstream(first) << "{}";
    EXPECT_EQ(BackupPathFor(dir + "/lobby.json", "20260101-120000"),
              dir + "/lobby.replaced-20260101-120000-2.json");
    EXPECT_EQ(BackupPathFor(dir + "/x", "s"), dir + "/x.replaced-s.json");
}

}  // namespace
