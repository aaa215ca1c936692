// Faults: wrong log file names or folder, rotation not once per unit, a bad line format or cut, torn lines, a silent or repeated unwritable-log notice.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/trc_log.h"
#include "support/fixtures.h"

namespace {

// The log folder is the executable's: each scenario runs in a copy of this binary in a private folder.
// Three logging units, as three source files have them.
trc_unit g_unit[3];

int Log(int unit, const std::string& msg) {
    return trc_log_unit(&g_unit[unit], "src/hidden_source.cpp", 4242, "TAGX", "%s", msg.c_str());
}

int RunScenario(const std::string& name) {
    int failed = 0, i = 0;  // "units": bit i set when call i failed; the letter is the unit
    if (name == "units")
        for (const char* msg : {"a1", "b1", "a2", "c1", "b2"}) failed |= (Log(msg[0] - 'a', msg) != 0) << i++;
    if (name == "units") return failed;
    if (name == "long") {
        for (auto [n, c] : {std::pair{982, 'a'}, {983, 'b'}, {2000, 'x'}}) Log(0, std::string(n, c));
        return trc_log_unit(&g_unit[0], "", 0, "", "id:%d name:%s", 3, "gate") == 0 ? 0 : 99;
    }
    std::vector<std::thread> threads;  // "threads"
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] { for (int n = 0; n < 50; ++n) Log(0, "t" + std::to_string(t) + " line " + std::to_string(n)); });
    for (auto& th : threads) th.join();
    return 0;
}

const int kChildMarker = [] {
    if (const char* scenario = getenv("CAMCTL_TRC_SCENARIO")) exit(RunScenario(scenario));
    return 0;
}();

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

const char kStamp[] = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}\[debug\]=====)";

// Messages of the lines in text, without the unwritable-log notices, which must be `notices` in number.
std::vector<std::string> Messages(const std::string& text, int notices = 0) {
    std::vector<std::string> out;
    std::istringstream in(text);
    int found = 0;
    const std::regex re(kStamp + std::string("(.*)====="));
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("camctl: cannot write the debug log ", 0) == 0 && ++found) continue;
        EXPECT_TRUE(std::regex_match(line, m, re)) << line;
        if (!m.empty()) out.push_back(m[1]);
    }
    EXPECT_EQ(found, notices) << text;
    return out;
}

class TrcLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file("/proc/self/exe", child_);
        chmod(child_.c_str(), 0755);
    }
    int Run(const std::string& scenario, const std::string& log_dir = "") {
        return camctl_test::RunCommand("cd / && CAMCTL_LOG_DIR='" + log_dir + "' CAMCTL_TRC_SCENARIO=" + scenario +
                                       " '" + child_ + "' 2>'" + (dir_ / "stderr.txt") + "'");
    }
    std::string Log(const char* name) { return ReadText(dir_ / name); }

    camctl_test::TempDir dir_;
    std::string child_ = dir_ / "trc_child";
};

TEST_F(TrcLogTest, EachUnitRotatesAtItsFirstLine) {
    std::ofstream(dir_ / "trc_new.log") << "line of the previous run\n";
    std::ofstream(dir_ / "trc_old.log") << "older run\n";
    // a1 -> new (the previous run's file moved to old); B's first line
    // rotates (a1 -> old), b1 a2 -> new; C rotates, c1 b2 -> new.
    ASSERT_EQ(Run("units"), 0);
    EXPECT_EQ(Messages(Log("trc_old.log")), (std::vector<std::string>{"b1", "a2"}));
    EXPECT_EQ(Messages(Log("trc_new.log")), (std::vector<std::string>{"c1", "b2"}));
    EXPECT_EQ(Messages(Log("stderr.txt")), (std::vector<std::string>{"a1", "b1", "a2", "c1", "b2"}));

    std::ofstream(dir_ / "trc_new.log", std::ios::trunc) << "line of the previous run\n";
    ASSERT_EQ(Run("threads"), 0);
    EXPECT_EQ(Log("trc_old.log"), "line of the previous run\n");  // rotated once for 4 threads
    std::vector<int> next(4, 0);
    const std::vector<std::string> lines = Messages(Log("trc_new.log"));
    EXPECT_EQ(lines.size(), 200u);
    for (const std::string& msg : lines) {
        int t = -1, i = -1;
        ASSERT_TRUE(sscanf(msg.c_str(), "t%d line %d", &t, &i) == 2 && t >= 0 && t < 4) << msg;
        EXPECT_EQ(i, next[t]++) << "thread " << t;  // whole lines, each thread's in order
    }
}

TEST_F(TrcLogTest, LineFormatAndCutAt1023) {
    ASSERT_EQ(Run("long"), 0);
    const std::string text = Log("trc_new.log");
    EXPECT_EQ(Log("stderr.txt"), text);
    ASSERT_GE(text.size(), 3u * 1023);
    // Timestamp (23 characters) + "[debug]=====" + message + "=====\n": 982
    // characters fill the 1023 exactly, 983 lose the newline, longer lose the tail.
    EXPECT_TRUE(std::regex_match(text.substr(0, 1023), std::regex(kStamp + std::string("a{982}=====\n"))));
    EXPECT_TRUE(std::regex_match(text.substr(1023, 1023), std::regex(kStamp + std::string("b{983}====="))));
    EXPECT_TRUE(std::regex_match(text.substr(2046, 1023), std::regex(kStamp + std::string("x{988}"))));
    EXPECT_EQ(Messages(text.substr(3069)), std::vector<std::string>{"id:3 name:gate"});
    for (const char* hidden : {"hidden_source", "4242", "TAGX"}) EXPECT_EQ(text.find(hidden), std::string::npos);
}

TEST_F(TrcLogTest, FolderFromEnvironmentAndUnwritableLogs) {
    // CAMCTL_LOG_DIR below the test folder; create it; take both log names with folders; bits of
    // the failed calls (only each unit's first line reports).
    const struct { std::string dir; bool make, block; int failed; } cases[] = {
        {"chosen/", true, false, 0},
        {"missing/folder", false, false, 1 | 2 | 8},
        {"blocked", true, true, 1 | 2 | 8},
        {std::string(260, 'd'), false, false, 1 | 2 | 8},  // too long for the log's paths
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dir.substr(0, 20));
        const std::string dir = dir_ / c.dir;
        if (c.make) std::filesystem::create_directories(dir);
        if (c.block) {
            std::filesystem::create_directories(dir + "/trc_new.log");
            std::filesystem::create_directories(dir + "/trc_old.log/keep");
        }
        EXPECT_EQ(Run("units", dir), c.failed);
        EXPECT_EQ(Messages(Log("stderr.txt"), c.failed ? 1 : 0),
                  (std::vector<std::string>{"a1", "b1", "a2", "c1", "b2"}));
        EXPECT_TRUE(c.failed || Messages(ReadText(dir + "/trc_new.log")) == (std::vector<std::string>{"c1", "b2"}));
        EXPECT_FALSE(std::filesystem::exists(dir_ / "trc_new.log"));  // nothing beside the executable
    }
}

}  // namespace
