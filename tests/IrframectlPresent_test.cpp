#include "Present.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Commands.h"

namespace {

TFrameEntry Frame(int number, const std::string& node, const std::string& serial) {
    TFrameEntry d;
    d.number = number;
    d.node = node;
    d.serial = serial;
    return d;
}

TEST(IrframectlPresent, PickFrameByNumberNodeOrSerial) {
    const std::vector<TFrameEntry> frames = {Frame(1, "/dev/hidraw3", "A1"),
                                                   Frame(2, "/dev/hidraw12", "7"),
                                                   Frame(3, "usb:001:004", "7")};
    struct {
        const char* wanted;
        int number;     // the frame picked, or 0
        int exitCode;   // else the error's exit code
    } const cases[] = {
        {"2", 2, 0},           {"/dev/hidraw12", 2, 0}, {"hidraw3", 1, 0},
        {"A1", 1, 0},          {"usb:001:004", 3, 0},   {"4", 0, kCtlNoFrame},
        {"hidraw", 0, kCtlNoFrame}, {"/dev/hidraw", 0, kCtlNoFrame},
        {"", 0, kCtlUsage},   // several frames, none named
        {"7", 0, kCtlUsage},  // number 7 is no frame, serial 7 is two
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.wanted);
        try {
            EXPECT_EQ(PickFrame(frames, c.wanted).number, c.number);
            EXPECT_EQ(c.exitCode, 0);
        } catch (const CToolError& e) {
            EXPECT_EQ(e.ExitCode(), c.exitCode) << e.what();
        }
    }
    EXPECT_EQ(PickFrame({Frame(5, "/dev/hidraw0", "")}, "").number, 5);
    try {
        PickFrame({}, "");
        ADD_FAILURE() << "no frame picked from none";
    } catch (const CToolError& e) {
        EXPECT_EQ(e.ExitCode(), kCtlNoFrame);
    }
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
    TMonitoredContact c;
    c.id = 4;
    c.status = 2;
    c.retired = true;
    c.x = 100;
    c.y = 32766;
    c.width = 7;
    c.height = 8;
    c.rawX = 65535;
    c.rawY = 3;
    c.cellGroup = 0xFF;
    c.cellIndex = 1;
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
    char dir[] = "/tmp/irframectl_present.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/lobby.json";
    const std::string first = BackupPathFor(file, "20260101-120000");
    EXPECT_EQ(first, std::string(dir) + "/lobby.replaced-20260101-120000.json");
    std::ofstream(first) << "{}";
    const std::string second = BackupPathFor(file, "20260101-120000");
    EXPECT_EQ(second, std::string(dir) + "/lobby.replaced-20260101-120000-2.json");
    EXPECT_EQ(BackupPathFor(std::string(dir) + "/x", "s"), std::string(dir) + "/x.replaced-s.json");
    std::remove(first.c_str());
    rmdir(dir);
}

}  // namespace
