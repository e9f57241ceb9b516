// The logger as a sink sees it (threshold, exact record text, whole records
// across threads) and, through a helper process started fresh for each
// setting, its environment and default record format.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "OrvoLogging.h"

using OrvoSupport::OrvoLogging;
using Records = std::vector<std::pair<int, std::string>>;

// Collects the records the logger hands to its sink (which it calls under its
// own lock), at the given threshold.
class LoggingTest : public ::testing::Test {
protected:
    void capture(int nLevel) {
        OrvoLogging::getInstance().setLogLevel(nLevel);
        OrvoLogging::getInstance().setSink([this](int n, const std::string& s) { m_records.emplace_back(n, s); });
    }
    void TearDown() override { OrvoLogging::getInstance().setSink({}); }
    Records m_records;
};

TEST_F(LoggingTest, ThresholdDecidesWhetherPiecesAreEvenFormatted) {
    capture(4);
    int nEvaluated = 0;
    auto piece = [&nEvaluated] { return std::to_string(++nEvaluated); };
    ORVO_LOG(5, "just above " << piece());
    ORVO_LOG(4, "at threshold " << piece());
    ORVO_LOG(1, "below " << piece());
    // Hand-streamed records obey the threshold too, and setloglevel starts
    // a new record even when the last one never ended.
    OrvoLogging::getInstance() << OrvoSupport::setloglevel(7) << "hidden" << OrvoSupport::endrec;
    OrvoLogging::getInstance() << OrvoSupport::setloglevel(2) << "abandoned";
    OrvoLogging::getInstance() << OrvoSupport::setloglevel(2) << "fresh" << OrvoSupport::endrec;
    EXPECT_EQ(m_records, (Records{{4, "at threshold 1"}, {1, "below 2"}, {2, "fresh"}}));
}

TEST_F(LoggingTest, PiecesFormatExactly) {
    capture(9);
    const char* pszNull = nullptr;
    ORVO_LOG(9, 'c' << "|" << -12 << "|" << 4000000000u << "|" << LONG_MIN << "|" << ULONG_MAX << "|" << LLONG_MAX
                    << "|" << static_cast<short>(-7) << "|" << true << "|" << false << "|" << pszNull << "|"
                    << static_cast<const void*>(nullptr) << "|" << reinterpret_cast<const void*>(0xdeadbeefUL));
    EXPECT_EQ(m_records, (Records{{9,
                                   "c|-12|4000000000|-9223372036854775808|18446744073709551615|"
                                   "9223372036854775807|-7|true|false|(null)|0x0|0xdeadbeef"}}));
}

TEST_F(LoggingTest, RecordsFromManyThreadsStayWhole) {
    capture(9);
    std::set<std::string> expected;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 500; ++i) expected.insert("t" + std::to_string(t) + " i" + std::to_string(i) + " end");
        // Several pieces per record, so interleaving would show.
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) ORVO_LOG(9, "t" << t << " i" << i << " end");
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(m_records.size(), expected.size());
    for (const auto& rec : m_records) EXPECT_EQ(expected.erase(rec.second), 1u) << rec.second;
}

// Runs the helper with env in place of the logger's variables, its stderr in
// dir/err, and returns the lines of sFile as "text" ("text@level name" when the
// level is not "error"), a line of another shape as "?line".
std::vector<std::string> helperLines(const std::string& sDir, std::vector<std::string> env, const std::string& sFile) {
    const pid_t pid = fork();
    if (pid == 0) {
        unsetenv("OSUPT_LOG_LEVEL");
        for (auto& e : env) putenv(e.data());
        const int fd = open((sDir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0 && dup2(fd, 2) >= 0) execl(OSUPT_LOG_HELPER, OSUPT_LOG_HELPER, static_cast<char*>(nullptr));
        _exit(121);
    }
    int nStatus = -1;
    if (pid < 0 || waitpid(pid, &nStatus, 0) != pid || nStatus != 0) return {"helper failed"};
    std::vector<std::string> out;
    std::ifstream in(sDir + "/" + sFile);
    for (std::string s; std::getline(in, s);) {
        char szLevel[16] = "";
        int nText = 0;
        long nPid = 0, nTid = 0;
        // "yyyy-mm-dd hh:mm:ss.mmm [level name] [pid:tid] text", the stamp exactly 23 wide.
        const bool bShaped = s.size() > 24 && s[24] == '[' &&
                             std::sscanf(s.c_str(), "%*4d-%*2d-%*2d %*2d:%*2d:%*2d.%*3d [%15[a-z]] [%ld:%ld] %n",
                                         szLevel, &nPid, &nTid, &nText) == 3;
        const std::string sText = bShaped && nText > 0 ? s.substr(static_cast<std::size_t>(nText)) : "";
        // Process id, then thread id: the main thread's equals it, the second thread's does not.
        const bool bRight = !sText.empty() && nPid == pid && (nTid == nPid) != (sText == "from thread");
        out.push_back(bRight ? sText + (std::string(szLevel) == "error" ? "" : "@" + std::string(szLevel)) : "?" + s);
    }
    return out;
}

TEST(LoggingEnvTest, LevelAndFileFromTheEnvironment) {
    char szDir[] = "/tmp/osupt-log-XXXXXX";
    ASSERT_NE(mkdtemp(szDir), nullptr);
    const std::string sDir = szDir, sFile = "OSUPT_LOG_FILE=" + sDir + "/app.log";
    std::ofstream(sDir + "/app.log") << "earlier line\n";
    // Appended to the file at the default level 1, nothing on stderr.
    EXPECT_EQ(helperLines(sDir, {sFile}, "app.log"),
              (std::vector<std::string>{"?earlier line", "level one 1", "from thread", "from static destructor"}));
    EXPECT_EQ(helperLines(sDir, {sFile}, "err"), std::vector<std::string>{});
    for (const char* pszLevel : {"OSUPT_LOG_LEVEL=9", "OSUPT_LOG_LEVEL=Trace"}) {
        EXPECT_EQ(helperLines(sDir, {pszLevel}, "err"),
                  (std::vector<std::string>{"level one 1", "level two true@warning", "level nine@trace", "from thread",
                                            "from static destructor"}))
            << pszLevel;
    }
    std::filesystem::remove_all(sDir);
}
