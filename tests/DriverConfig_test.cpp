#include "DriverConfig.h"

#include "ConfigReload.h"
#include "LinuxConfigChecks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const TConfigChecks& Checks() {
    static const TConfigChecks checks = LinuxConfigChecks();
    return checks;
}

size_t Index(TGestureShortcut shortcut) { return static_cast<size_t>(shortcut); }

bool Parse(const std::string& text, TDriverConfig* config, std::string* error) {
    return ParseDriverConfig(text, "irframe.toml", Checks(), config, error);
}

// Verify that a file that says everything gives every field, in one spelling per chord, and that
// a file that says nothing is the defaults: the safe profile at level info.
TEST(DriverConfig, ReadsEverySection) {
    TDriverConfig config = DefaultDriverConfig(Checks());
    std::string error;
    ASSERT_TRUE(Parse("\xef\xbb\xbf# caf\xc3\xa9: comments may hold any text\n"
                      "log_level = \"debug\"  # d\xc3\xa9" "bogage\n"
                      "[screen]\nsize = \"1280x800\"\noutput = \"HDMI-1\"\n"
                      "[gestures]\nenabled = false\n"
                      "[keys]\nprofile = \"desktop\"\n"
                      "[shortcuts]\nrotate-clockwise = \"Alt + Ctrl + Left\"\n"
                      "four-finger-spread = \"none\"\n"
                      "[output]\ntouchscreen = true\nwidth_mm = 1210\nheight_mm = 680\n"
                      "[output.tuio]\nenabled = true\ntarget = \"127.0.0.1:3334\"\n"
                      "allow_device_targets = true\n"
                      "[output.tuio.areas]\n1 = \"3335\"\n",
                      &config, &error))
        << error;
    TDriverConfig expected = DefaultDriverConfig(Checks());
    expected.logLevel = "debug";
    expected.screenSize = "1280x800";
    expected.screenOutput = "HDMI-1";
    expected.gestures = false;
    expected.keyProfile = "desktop";
    expected.shortcuts[Index(TGestureShortcut::RotateClockwise)] = "ctrl+alt+left";
    expected.shortcuts[Index(TGestureShortcut::FourFingerSpread)] = "none";
    expected.touchscreen = true;
    expected.touchscreenWidthMm = 1210;
    expected.touchscreenHeightMm = 680;
    expected.tuio = true;
    expected.tuioTarget = "127.0.0.1:3334";
    expected.tuioAllowDeviceTargets = true;
    expected.tuioAreaTargets = {{1, "3335"}};
    EXPECT_EQ(config, expected);

    const auto chords = EffectiveShortcuts(config, Checks());
    EXPECT_EQ(chords[Index(TGestureShortcut::RotateClockwise)], "ctrl+alt+left");
    EXPECT_EQ(chords[Index(TGestureShortcut::RotateAnticlockwise)], "ctrl+shift+r");  // desktop's

    TDriverConfig empty = DefaultDriverConfig(Checks());
    ASSERT_TRUE(Parse("# nothing\n", &empty, &error)) << error;
    EXPECT_EQ(empty, DefaultDriverConfig(Checks()));
    EXPECT_EQ(empty.keyProfile + " " + empty.logLevel, "safe info");
}

struct TErrorCase {
    std::string text;
    std::string message;  // the whole line after "irframe.toml:"; "..." stands for any text
};

// Whether `text` is `pattern` with each "..." standing for any text.
bool Matches(std::string_view text, std::string_view pattern) {
    const size_t dots = pattern.find("...");
    if (dots == std::string_view::npos) return text == pattern;
    if (!text.starts_with(pattern.substr(0, dots))) return false;
    const std::string_view rest = pattern.substr(dots + 3);
    for (size_t from = dots; from <= text.size(); ++from) {
        if (Matches(text.substr(from), rest)) return true;
    }
    return false;
}

void PrintTo(const TErrorCase& c, std::ostream* out) { *out << testing::PrintToString(c.text); }

class ConfigError : public testing::TestWithParam<TErrorCase> {};

// Verify that each mistake gives one line with the file, line and column, what is wrong and
// what is valid, and that the configuration is left as it was.
TEST_P(ConfigError, NamesPlaceAndRemedy) {
    const TErrorCase& c = GetParam();
    TDriverConfig config = DefaultDriverConfig(Checks());
    config.logLevel = "warning";
    const TDriverConfig before = config;
    std::string error;
    EXPECT_FALSE(Parse(c.text, &config, &error));
    EXPECT_TRUE(Matches(error, "irframe.toml:" + c.message)) << error << "\n" << c.message;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_EQ(config, before);
}

const std::string kTopKeys = "valid keys: log_level, [screen], [gestures], [keys], [shortcuts], "
                             "[output]";
const std::string kNotAscii = "only comments may hold one";

const TErrorCase kErrors[] = {
    {"loglevel = \"info\"\n", "1:1: unknown key \"loglevel\"; " + kTopKeys},
    {"[screen]\nsise = \"1x1\"\n",
     "2:1: unknown key \"sise\" in [screen]; valid keys: size, output"},
    {"[display]\nname = \"x\"\n", "1:2: unknown key \"display\"; " + kTopKeys},
    {"[screen.extra]\n", "1:9: unknown key \"extra\" in [screen]; valid keys: size, output"},
    {"[shortcuts]\nrotate = \"none\"\n",
     "2:1: unknown key \"rotate\" in [shortcuts]; valid keys: rotate-clockwise, "
     "rotate-anticlockwise, swipe-left, swipe-right, border-swipe, pinch, spread, "
     "zoom-toggle-first, zoom-toggle-second, four-finger-left, four-finger-right, "
     "four-finger-up, four-finger-down, four-finger-pinch, four-finger-spread"},
    {"log_level = 3\n", "1:13: log_level: must be a string, not an integer"},
    {"log_level = \"loud\"\n",
     "1:13: log_level: \"loud\" is not valid; use \"error\", \"warning\", \"info\" or \"debug\""},
    {"[keys]\nprofile = \"emacs\"\n",
     "2:11: keys.profile: \"emacs\" is not valid; use \"safe\", \"literal\" or \"desktop\""},
    {"[keys]\nprofile = [\"safe\"]\n", "2:11: keys.profile: must be a string, not an array"},
    {"[shortcuts]\npinch = \"ctrl+plus\"\n",
     "2:9: shortcuts.pinch: unknown key name 'plus' in 'ctrl+plus'; valid names: ctrl, "
     "rightctrl, alt, ..."},
    {"[shortcuts]\nspread = \"a+ctrl\"\n",
     "2:10: shortcuts.spread: only the last key of 'a+ctrl' may be ..."},
    {"[shortcuts]\nswipe-left = true\n",
     "2:14: shortcuts.swipe-left: must be a string, not a boolean"},
    {"screen = \"big\"\n", "1:10: screen must be a table ([screen]), not a string"},
    {"[[screen]]\nsize = \"1x1\"\n", "1:1: screen must be a table ([screen]), not an array"},
    {"[screen]\nsize = \"wide\"\n",
     "2:8: screen.size: \"wide\" is not WIDTHxHEIGHT or WIDTHxHEIGHT+X+Y (such as "
     "\"1920x1080\" or \"2560x1440+1920+0\")"},
    {"[screen]\noutput = \"HDMI 1\"\n",
     "2:10: screen.output: \"HDMI 1\" is not an output name: ..."},
    {"[output]\ntouchscreen = \"yes\"\n",
     "2:15: output.touchscreen: \"yes\" is not valid; use \"per-frame\" or \"per-area\""},
    {"[output]\ntouchscreen = 1\n",
     "2:15: output.touchscreen: must be true, false or \"per-area\", not an integer"},
    {"[output]\nwidth_mm = 30000\n", "2:12: output.width_mm: 30000 is out of range 0..20000"},
    {"[output.tuio]\ntarget = \"localhost:0\"\n", "2:10: output.tuio.target: ..."},
    {"[output.tuio.areas]\n32 = \"3333\"\n",
     "2:1: unknown key \"32\" in [output.tuio.areas]; valid keys: ..."},
    {"log_level = \n", "1:13: not valid TOML: ..."},
    {"log_level = \"info\"\nlog_level = \"debug\"\n",
     "2:13: not valid TOML: ... cannot redefine existing string 'log_level'"},
    {"log_level = \"info\"\n# caf\xe9\n",
     "2:6: not UTF-8 text (byte 0xE9); save the file as UTF-8"},
    {"# \xed\xa0\x80 is a surrogate\n", "1:3: not UTF-8 text (byte 0xED); save the file as UTF-8"},
    {"log_level = \"info\" \xc3\xa9\n",
     "1:20: a character outside ASCII (byte 0xC3); " + kNotAscii},
    {"[keys]\nprofile = \"\"\"\\\n  \xc2\xa7\"\"\"\n",
     "3:3: a character outside ASCII (byte 0xC2); " + kNotAscii},
    {"[screen]\noutput = \"\xc3\x89" "cran\"  # \xc3\x89" "cran\n",
     "2:11: a character outside ASCII (byte 0xC3); " + kNotAscii},
    {"a = 1\"x\" # \"\xce\x94\"\n", "1:...: not valid TOML: ..."},
    {"log_level =i\n", "1:...: not valid TOML: ...'i\\n'"},
    {std::string("log_level = \"in\0fo\"\n", 20), "1:16: not valid TOML: ..."},
};

INSTANTIATE_TEST_SUITE_P(EveryKind, ConfigError, testing::ValuesIn(kErrors));

// Verify that the long value of a bad key is cut in the message.
TEST(DriverConfig, LongValuesAreCutInMessages) {
    TDriverConfig config = DefaultDriverConfig(Checks());
    std::string error;
    EXPECT_FALSE(Parse("log_level = \"" + std::string(5000, 'x') + "\"\n", &config, &error));
    EXPECT_LT(error.size(), 200u) << error;
    EXPECT_THAT(error, HasSubstr("xxx\"... is not valid"));
}

// Verify that the printed configuration reads back to the same configuration in force and
// prints the same again, for the defaults and for a file that sets everything.
TEST(DriverConfig, PrintReadsBack) {
    TDriverConfig custom = DefaultDriverConfig(Checks());
    custom.logLevel = "error";
    custom.screenSize = "800x600+1920+0";
    custom.screenOutput = "DP-1.2";
    custom.keyProfile = "literal";
    custom.gestures = false;
    custom.shortcuts[Index(TGestureShortcut::Pinch)] = "none";
    custom.shortcuts[Index(TGestureShortcut::FourFingerUp)] = "super+pageup";
    custom.touchscreen = true;
    custom.touchscreenPerArea = true;
    custom.touchscreenHeightMm = 300;
    custom.tuio = true;
    custom.tuioTarget = "9000";
    custom.tuioAreaTargets = {{0, "127.0.0.1:3333"}, {31, "9001"}};

    for (const TDriverConfig& original : {DefaultDriverConfig(Checks()), custom}) {
        const std::string printed = PrintConfig(original, Checks());
        TDriverConfig back = DefaultDriverConfig(Checks());
        std::string error;
        ASSERT_TRUE(Parse(printed, &back, &error)) << error << "\n" << printed;
        EXPECT_EQ(PrintConfig(back, Checks()), printed);
        EXPECT_EQ(EffectiveShortcuts(back, Checks()), EffectiveShortcuts(original, Checks()));
        back.shortcuts = original.shortcuts;  // every chord is written out; compared above
        EXPECT_EQ(back, original);
    }
    const std::string printed = PrintConfig(custom, Checks());
    EXPECT_THAT(printed, HasSubstr("\n[keys]\n"));
    EXPECT_THAT(printed, HasSubstr("\nprofile = \"literal\"\n"));
    EXPECT_THAT(printed, HasSubstr("\nrotate-anticlockwise = \"super+l\"  # two fingers turn "
                                   "anticlockwise\n"));
    EXPECT_THAT(printed, HasSubstr("\nfour-finger-up = \"super+pageup\"  #"));
}

// ---------------------------------------------------------------------------------------------
// Files

// A temporary directory (removed with everything in it), the environment looking there.
class ConfigFile : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/driverconfig_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_environment = ProcessConfigEnvironment("");
        m_environment.xdgConfigHome = m_dir + "/user";
        m_environment.systemDir = m_dir + "/etc";
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    // Writes `text` at `path` under the directory, making the directories on the way.
    std::string Write(const std::string& path, const std::string& text) {
        const std::filesystem::path full = m_dir + "/" + path;
        std::filesystem::create_directories(full.parent_path());
        std::ofstream(full, std::ios::binary) << text;
        return full;
    }
    // The error of loading `path`, or "" when it loads; `status` as expected.
    static std::string LoadError(const std::string& path,
                                 TConfigStatus status = TConfigStatus::CannotRead) {
        TDriverConfig config = DefaultDriverConfig(Checks());
        std::string error;
        const TConfigStatus loaded = LoadDriverConfigFile(path, Checks(), &config, &error);
        if (loaded == TConfigStatus::Ok) return "";
        EXPECT_EQ(loaded, status) << path;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
        return error;
    }

    std::string m_dir;
    TConfigEnvironment m_environment;
};

// Verify one clear line for each file that cannot be a configuration.
TEST_F(ConfigFile, RefusesWhatIsNotAConfigurationFile) {
    EXPECT_EQ(LoadError(m_dir), "configuration " + m_dir + " is a directory; give the file "
                                "inside it");
    EXPECT_EQ(LoadError(m_dir + "/missing.toml"),
              "cannot read configuration " + m_dir + "/missing.toml: No such file or directory");
    EXPECT_EQ(LoadError("/dev/null"), "configuration /dev/null is not a regular file");
    const std::string fifo = m_dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(LoadError(fifo), "configuration " + fifo + " is not a regular file");

    std::string huge = "log_level = \"info\"\n";
    huge += "#" + std::string(kMaxConfigBytes, 'x') + "\n";
    EXPECT_EQ(LoadError(Write("huge.toml", huge)),
              "configuration " + m_dir + "/huge.toml is larger than 1 MiB; a configuration file "
              "holds a few lines");
    EXPECT_EQ(LoadError(Write("fits.toml", "#" + std::string(kMaxConfigBytes - 2, 'x') + "\n")),
              "");
    const std::string oddName = Write("odd\nname.toml", "log_level = 1\n");
    EXPECT_THAT(LoadError(oddName, TConfigStatus::Invalid),
                StartsWith(m_dir + "/odd\\nname.toml:1:13: log_level: "));

    const std::string binary = Write("binary.toml", std::string("\x7f" "ELF\x02\x01\x01\0", 8));
    EXPECT_THAT(LoadError(binary, TConfigStatus::Invalid),
                StartsWith(binary + ":1:1: not valid TOML: "));
    const std::string bad = Write("bad.toml", "[keys]\nprofile = \"x\"\n");
    EXPECT_THAT(LoadError(bad, TConfigStatus::Invalid), StartsWith(bad + ":2:11: keys.profile: "));

    // The system's own reason, whatever it is (root reads a file of mode 0 anyway).
    const std::string underAFile = Write("plain.toml", "") + "/irframe.toml";
    EXPECT_EQ(LoadError(underAFile),
              "cannot read configuration " + underAFile + ": Not a directory");
}

struct TLookupCase {
    const char* what;
    std::string explicitPath;
    std::optional<std::string> xdg;
    std::optional<std::string> home;
    std::set<std::string> present;
    std::string found;
};

// Verify the order: --config, then the user's file, then the system's, then none.
TEST(ConfigLookup, FindsTheFirstThatExists) {
    const std::string xdg = "/x/irframe/irframe.toml";
    const std::string home = "/home/u/.config/irframe/irframe.toml";
    const std::string etc = "/etc/irframe/irframe.toml";
    const TLookupCase cases[] = {
        {"--config wins, even when missing", "my.toml", "/x", "/home/u", {xdg, etc}, "my.toml"},
        {"XDG_CONFIG_HOME first", "", "/x", "/home/u", {xdg, home, etc}, xdg},
        {"XDG_CONFIG_HOME replaces ~/.config", "", "/x", "/home/u", {home, etc}, etc},
        {"~/.config without XDG_CONFIG_HOME", "", std::nullopt, "/home/u", {home, etc}, home},
        {"a relative XDG_CONFIG_HOME is ignored", "", "x", "/home/u", {home}, home},
        {"the system's file", "", std::nullopt, std::nullopt, {etc}, etc},
        {"none: built-in defaults", "", "/x", "/home/u", {}, ""},
    };
    for (const TLookupCase& c : cases) {
        TConfigEnvironment environment;
        environment.explicitPath = c.explicitPath;
        environment.xdgConfigHome = c.xdg;
        environment.home = c.home;
        environment.exists = [&](const std::string& path) { return c.present.count(path) != 0; };
        EXPECT_EQ(FindConfigFile(environment), c.found) << c.what;
    }
}

// ---------------------------------------------------------------------------------------------
// Drop-in directories

struct TDropInCase {
    const char* what;
    std::vector<std::pair<std::string, std::string>> files;  // path under the temp dir, text
    std::vector<std::string> read;     // the files read, in order
    std::string keyProfile;            // what the last one of them says
    std::string logLevel;
    size_t skipped = 0;
};

class ConfigDropIns : public ConfigFile, public testing::WithParamInterface<TDropInCase> {};

const std::string kDesktop = "[keys]\nprofile = \"desktop\"\n";
const std::string kLiteral = "[keys]\nprofile = \"literal\"\n";
const std::string kDebug = "log_level = \"debug\"\n";

// Verify which files are read, in which order, and that each later one overrides only the keys
// it sets.
TEST_P(ConfigDropIns, ReadsTheLevelsInOrder) {
    const TDropInCase& c = GetParam();
    for (const auto& [path, text] : c.files) {
        if (text == "<dir>") {
            std::filesystem::create_directories(m_dir + "/" + path);
        } else {
            Write(path, text);
        }
    }
    TDriverConfig config = DefaultDriverConfig(Checks());
    TConfigSources sources;
    std::string error;
    ASSERT_EQ(LoadDriverConfig(m_environment, Checks(), &config, &sources, &error),
              TConfigStatus::Ok)
        << c.what << ": " << error;
    std::vector<std::string> expected;
    for (const std::string& path : c.read) expected.push_back(m_dir + "/" + path);
    EXPECT_EQ(sources.files, expected) << c.what;
    EXPECT_EQ(config.keyProfile, c.keyProfile) << c.what;
    EXPECT_EQ(config.logLevel, c.logLevel) << c.what;
    EXPECT_EQ(sources.skipped.size(), c.skipped) << c.what;
    for (const std::string& line : sources.skipped) EXPECT_EQ(line.find('\n'), std::string::npos);
    // The same files, named in one line.
    std::string source = "left over", joined;
    for (const std::string& path : expected) joined += (joined.empty() ? "" : ", ") + path;
    ASSERT_EQ(LoadDriverConfig(m_environment, Checks(), &config, &source, &error),
              TConfigStatus::Ok);
    EXPECT_EQ(source, joined) << c.what;
}

const std::string kSys = "etc/irframe/";
const std::string kUser = "user/irframe/";

INSTANTIATE_TEST_SUITE_P(
    Order, ConfigDropIns,
    testing::Values(
        TDropInCase{"the user's file replaces the system's level, drop-ins included",
                    {{kSys + "irframe.toml", kDebug},
                     {kSys + "irframe.d/10.toml", kLiteral},
                     {kUser + "irframe.toml", kDesktop}},
                    {kUser + "irframe.toml"}, "desktop", "info"},
        TDropInCase{"the system's file then its drop-ins in name order",
                    {{kSys + "irframe.toml", kDebug},
                     {kSys + "irframe.d/20-b.toml", kDesktop},
                     {kSys + "irframe.d/10-a.toml", kLiteral}},
                    {kSys + "irframe.toml", kSys + "irframe.d/10-a.toml",
                     kSys + "irframe.d/20-b.toml"},
                    "desktop", "debug"},
        TDropInCase{"the user's drop-ins over the system's level",
                    {{kSys + "irframe.toml", kDebug + kDesktop},
                     {kUser + "irframe.d/40-map.toml", kLiteral}},
                    {kSys + "irframe.toml", kUser + "irframe.d/40-map.toml"}, "literal", "debug"},
        TDropInCase{"the user's file then the user's drop-ins",
                    {{kUser + "irframe.toml", kDebug + kLiteral},
                     {kUser + "irframe.d/50-settings.toml", kDesktop},
                     {kUser + "irframe.d/40-map.toml", "log_level = \"error\"\n"}},
                    {kUser + "irframe.toml", kUser + "irframe.d/40-map.toml",
                     kUser + "irframe.d/50-settings.toml"},
                    "desktop", "error"},
        TDropInCase{"hidden files and other names are passed over in silence, a directory "
                    "with a message",
                    {{kUser + "irframe.d/.50.toml", kDesktop},
                     {kUser + "irframe.d/50.toml~", kDesktop},
                     {kUser + "irframe.d/50.toml.dpkg-old", kDesktop},
                     {kUser + "irframe.d/60.toml", "<dir>"},
                     {kUser + "irframe.d/70.toml", kDebug}},
                    {kUser + "irframe.d/70.toml"}, "safe", "debug", 1},
        TDropInCase{"none: the built-in defaults", {}, {}, "safe", "info"}));

// Verify that a drop-in that cannot be read, or has a mistake, stops the reading with its own
// name and place, and leaves the configuration as it was.
TEST_F(ConfigDropIns, AMistakeInADropInChangesNothing) {
    Write("user/irframe/irframe.toml", kDesktop);
    Write("user/irframe/irframe.d/10.toml", kDebug);
    Write("user/irframe/irframe.d/20.toml", "[keys]\nprofile = 3\n");
    TDriverConfig config = DefaultDriverConfig(Checks());
    TConfigSources sources;
    std::string error;
    EXPECT_EQ(LoadDriverConfig(m_environment, Checks(), &config, &sources, &error),
              TConfigStatus::Invalid);
    EXPECT_THAT(error, StartsWith(m_dir + "/user/irframe/irframe.d/20.toml:2:11: "));
    EXPECT_EQ(config, DefaultDriverConfig(Checks()));
}

// Verify that no more than kMaxConfigDropIns files are read from one directory, the first in
// name order, and the rest are named.
TEST_F(ConfigDropIns, ReadsABoundedNumber) {
    for (size_t i = 0; i < kMaxConfigDropIns + 2; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "user/irframe/irframe.d/%03zu.toml", i);
        Write(name, kDebug);
    }
    TConfigSources sources = FindConfigFiles(m_environment);
    ASSERT_EQ(sources.files.size(), kMaxConfigDropIns);
    EXPECT_EQ(sources.files.back(), m_dir + "/user/irframe/irframe.d/031.toml");
    ASSERT_EQ(sources.skipped.size(), 2u);
    EXPECT_THAT(sources.skipped[0], HasSubstr("/032.toml skipped: only 32 files are read"));
}

// Verify that a reload reads every file again and keeps the configuration in force when one of
// them has a mistake.
TEST_F(ConfigDropIns, ReloadRereadsThemAll) {
    Write("user/irframe/irframe.toml", kDesktop);
    const char* saved = std::getenv("XDG_CONFIG_HOME");
    const std::string savedValue = saved != nullptr ? saved : "";
    setenv("XDG_CONFIG_HOME", (m_dir + "/user").c_str(), 1);
    DriverOptions options;
    options.keys = "desktop";
    int applied = 0;
    Write("user/irframe/irframe.d/40-map.toml", kLiteral);
    TReloadResult result = ReloadDriverConfiguration(Checks(), &options, [&] { ++applied; });
    EXPECT_TRUE(result.reloaded) << result.message;
    EXPECT_EQ(options.keys, "literal");
    EXPECT_EQ(options.configFile, m_dir + "/user/irframe/irframe.toml, " + m_dir +
                                      "/user/irframe/irframe.d/40-map.toml");

    Write("user/irframe/irframe.d/40-map.toml", kDesktop + "[screen]\nsize = 7\n");
    result = ReloadDriverConfiguration(Checks(), &options, [&] { ++applied; });
    EXPECT_FALSE(result.reloaded);
    EXPECT_THAT(result.message, HasSubstr("/40-map.toml:4:8: "));
    EXPECT_EQ(options.keys, "literal");
    EXPECT_EQ(applied, 1);
    if (saved != nullptr) {
        setenv("XDG_CONFIG_HOME", savedValue.c_str(), 1);
    } else {
        unsetenv("XDG_CONFIG_HOME");
    }
}

}  // namespace
