// Debug log: line format, the 1023-character cut, per-unit rotation of
// trc_new.log / trc_old.log in the executable's folder or CAMCTL_LOG_DIR.
//
// The log folder is the folder of the running executable, so every scenario
// runs in a copy of this test binary placed in a private temporary folder:
// the copy notices CAMCTL_TRC_SCENARIO before main, logs, and exits.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/trc_log.h"
#include "support/fixtures.h"

namespace {

// Three logging units, as three source files would have them.
trc_unit g_unitA;
trc_unit g_unitB;
trc_unit g_unitC;

const char kSource[] = "src/ipcamera/hidden_source_name.cpp";
const int kLine = 4242;
const char kTag[] = "TAGX";

int LogA(const char* msg) { return trc_log_unit(&g_unitA, kSource, kLine, kTag, "%s", msg); }
int LogB(const char* msg) { return trc_log_unit(&g_unitB, kSource, kLine, kTag, "%s", msg); }
int LogC(const char* msg) { return trc_log_unit(&g_unitC, kSource, kLine, kTag, "%s", msg); }

// ---- child side -------------------------------------------------------------

int RunScenario(const std::string& name) {
    if (name == "one") return LogA("camera opened") == 0 ? 0 : 10;
    if (name == "units") {
        int rc = LogA("a1");
        rc |= LogB("b1");
        rc |= LogA("a2");
        rc |= LogC("c1");
        rc |= LogB("b2");
        return rc == 0 ? 0 : 11;
    }
    if (name == "long") {
        LogA(std::string(982, 'a').c_str());
        LogA(std::string(983, 'b').c_str());
        LogA(std::string(2000, 'x').c_str());
        LogA("after");
        return trc_log_unit(&g_unitA, kSource, kLine, kTag, "id:%d name:%s", 3, "gate") == 0 ? 0 : 12;
    }
    if (name == "threads") {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < 50; ++i) trc_log_unit(&g_unitA, kSource, kLine, kTag, "t%d line %d", t, i);
            });
        }
        for (auto& th : threads) th.join();
        return 0;
    }
    if (name == "unwritable") {
        // trc_new.log is a directory: the first line reports the failure,
        // later ones are dropped quietly.
        int first = LogA("lost 1");
        int second = LogA("lost 2");
        return (first == -1 && second == 0) ? 0 : 13;
    }
    return 99;
}

const int kChildMarker = [] {
    const char* scenario = getenv("CAMCTL_TRC_SCENARIO");
    if (scenario) exit(RunScenario(scenario));
    return 0;
}();

// ---- parent side -------------------------------------------------------------

std::string ReadText(const std::string& path) {
    std::vector<unsigned char> bytes = camctl_test::ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

void WriteText(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        out.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return out;
}

const std::regex kLineRe(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3})\[debug\]=====(.*)=====)");

// Messages of the lines in text; fails the test on a malformed line.
std::vector<std::string> Messages(const std::string& text) {
    std::vector<std::string> out;
    for (const std::string& line : Lines(text)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, kLineRe)) << "bad line: " << line;
        if (!m.empty()) out.push_back(m[2]);
    }
    return out;
}

// The text without the lines saying the log cannot be written, which must
// be `notices` in number.
std::string WithoutNotice(const std::string& text, size_t notices) {
    std::string rest;
    size_t found = 0;
    for (const std::string& line : Lines(text)) {
        if (line.find("cannot write the debug log") != std::string::npos) ++found;
        else rest += line + "\n";
    }
    EXPECT_EQ(found, notices) << text;
    return rest;
}

class TrcLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        child_ = dir_ / "trc_child";
        std::filesystem::copy_file("/proc/self/exe", child_);
        chmod(child_.c_str(), 0755);
    }

    // Runs the scenario in the copy; returns its exit status.
    int Run(const std::string& scenario, const std::string& log_dir = "") {
        std::string cmd = "cd / && CAMCTL_LOG_DIR='" + log_dir + "' CAMCTL_TRC_SCENARIO=" + scenario + " '" +
                          child_ + "' 2>'" + (dir_ / "stderr.txt") + "'";
        return camctl_test::RunCommand(cmd);
    }

    std::string NewLog() { return ReadText(dir_ / "trc_new.log"); }
    std::string OldLog() { return ReadText(dir_ / "trc_old.log"); }
    std::string Stderr() { return ReadText(dir_ / "stderr.txt"); }

    camctl_test::TempDir dir_;
    std::string child_;
};

TEST_F(TrcLogTest, Rotate_FirstLineMovesPreviousRunAside) {
    WriteText(dir_ / "trc_new.log", "line of the previous run\n");
    ASSERT_EQ(Run("one"), 0);
    EXPECT_EQ(OldLog(), "line of the previous run\n");
    EXPECT_EQ(Messages(NewLog()), std::vector<std::string>{"camera opened"});

    // A second run drops the oldest file and rotates again.
    ASSERT_EQ(Run("one"), 0);
    EXPECT_EQ(Messages(OldLog()), std::vector<std::string>{"camera opened"});
    EXPECT_EQ(Messages(NewLog()), std::vector<std::string>{"camera opened"});
}

TEST_F(TrcLogTest, Rotate_OncePerUnit) {
    WriteText(dir_ / "trc_old.log", "stale\n");
    ASSERT_EQ(Run("units"), 0);
    // a1 -> new; B rotates (new holds a1 -> old); b1, a2 -> new; C rotates
    // (old a1 dropped, new -> old); c1, b2 -> new.
    EXPECT_EQ(Messages(OldLog()), (std::vector<std::string>{"b1", "a2"}));
    EXPECT_EQ(Messages(NewLog()), (std::vector<std::string>{"c1", "b2"}));
    // Every line also went to stderr, in order.
    EXPECT_EQ(Messages(Stderr()), (std::vector<std::string>{"a1", "b1", "a2", "c1", "b2"}));
}

TEST_F(TrcLogTest, Line_FormatAndCutAt1023) {
    ASSERT_EQ(Run("long"), 0);
    const std::string text = NewLog();
    EXPECT_EQ(Stderr(), text);
    ASSERT_GE(text.size(), 3u * 1023);

    // Timestamp (23 characters here) + "[debug]=====" + message + "=====\n":
    // 982 characters of message fill the 1023 exactly, 983 lose the newline,
    // longer ones lose the tail.
    const std::string full = text.substr(0, 1023);
    const std::string noNewline = text.substr(1023, 1023);
    const std::string cut = text.substr(2046, 1023);
    const std::string rest = text.substr(3069);

    EXPECT_TRUE(std::regex_match(
        full, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}\[debug\]=====a{982}=====\n)")));
    EXPECT_TRUE(std::regex_match(
        noNewline, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}\[debug\]=====b{983}=====)")));
    EXPECT_TRUE(std::regex_match(cut, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}\[debug\]=====x{988})")));
    EXPECT_EQ(Messages(rest), (std::vector<std::string>{"after", "id:3 name:gate"}));

    // Source path, line number and tag never reach the output.
    EXPECT_EQ(text.find("hidden_source_name"), std::string::npos);
    EXPECT_EQ(text.find("4242"), std::string::npos);
    EXPECT_EQ(text.find("TAGX"), std::string::npos);
}

TEST_F(TrcLogTest, Concurrent_LinesStayWhole) {
    WriteText(dir_ / "trc_new.log", "previous\n");
    ASSERT_EQ(Run("threads"), 0);
    std::vector<std::string> messages = Messages(NewLog());
    EXPECT_EQ(messages.size(), 200u);
    std::vector<int> perThread(4, 0);
    for (const std::string& msg : messages) {
        int t = -1, i = -1;
        ASSERT_EQ(sscanf(msg.c_str(), "t%d line %d", &t, &i), 2) << msg;
        ASSERT_GE(t, 0);
        ASSERT_LT(t, 4);
        EXPECT_EQ(i, perThread[t]++) << "thread " << t;  // each thread's lines in order
    }
    EXPECT_EQ(OldLog(), "previous\n");  // rotated exactly once
}

TEST_F(TrcLogTest, LogDir_FromEnvironment) {
    // Three units log five lines; the folder is the environment's.
    struct Case {
        std::string dir;      // CAMCTL_LOG_DIR below the test folder
        bool writable;
    } cases[] = {
        {"chosen/", true},            // trailing '/' is fine
        {"missing/folder", false},    // not made: lines dropped, said once
        {std::string(260, 'd'), false},  // too long for the log's paths
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.dir.substr(0, 20));
        const std::string dir = dir_ / c.dir;
        if (c.writable) std::filesystem::create_directories(dir);
        EXPECT_EQ(Run("units", dir), c.writable ? 0 : 11);
        const std::string err = WithoutNotice(Stderr(), c.writable ? 0 : 1);
        EXPECT_EQ(Messages(err), (std::vector<std::string>{"a1", "b1", "a2", "c1", "b2"}));
        if (c.writable) {
            EXPECT_EQ(Messages(ReadText(dir + "/trc_new.log")), (std::vector<std::string>{"c1", "b2"}));
        }
        EXPECT_FALSE(std::filesystem::exists(dir_ / "trc_new.log"));  // nothing beside the executable
    }
}

TEST_F(TrcLogTest, Append_FailuresAreSoft) {
    // Both names taken by directories: rotation cannot move them and the
    // file cannot be opened (true even for root).
    ASSERT_EQ(mkdir((dir_ / "trc_new.log").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir_ / "trc_old.log").c_str(), 0755), 0);
    WriteText(dir_ / "trc_old.log" + "/keep", "x");
    ASSERT_EQ(Run("unwritable"), 0);
    EXPECT_EQ(Messages(WithoutNotice(Stderr(), 1)), (std::vector<std::string>{"lost 1", "lost 2"}));

    const std::string path = dir_ / "direct.log";
    EXPECT_EQ(trc_append(path.c_str(), "one\n"), 0);
    EXPECT_EQ(trc_append(path.c_str(), "two\n"), 0);
    EXPECT_EQ(ReadText(path), "one\ntwo\n");
    EXPECT_EQ(trc_append((dir_ / "missing/dir.log").c_str(), "x"), -1);
    EXPECT_EQ(trc_append(nullptr, "x"), -1);
}

}  // namespace
