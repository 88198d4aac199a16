#include "foundation/Log.h"

#include "foundation/Registry.h"
#include "foundation/Thread.h"
#include "support/TempRoot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr long long kModuleLogSize = 524288;

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// What follows the header in each line.
std::vector<std::string> textsOf(const std::string& path) {
    std::vector<std::string> texts;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) texts.push_back(line.substr(line.find("] - ") + 4));
    return texts;
}

template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class ALog : public testing::Test {
protected:
    ALog() { testing::internal::CaptureStdout(); }
    ~ALog() override {
        CBBLog::setLogger(nullptr);
        if (capturing_) testing::internal::GetCapturedStdout();
    }

    static boost::shared_ptr<CBBLog> makeLog(const char* name = "Recorder.log", long long size = kModuleLogSize) {
        return boost::make_shared<CBBLog>(name, false, size);
    }

    std::string echoed() {
        capturing_ = false;
        return testing::internal::GetCapturedStdout();
    }

    std::string inLogs(const std::string& name) const { return root_.logsFolder() + "/" + name; }
    std::string logPath() const { return inLogs("Recorder.log"); }

    TempRoot root_;

private:
    bool capturing_ = true;
};

TEST_F(ALog, WritesTheLevelsThatTheSettingEnables) {
    const std::vector<std::string> all = {"of fatal", "of error", "of warn", "of info", "of debug"};
    for (const int setting : {-2, 0, 1, 2, 3, 4, 7}) {
        const CStdStr name = std::to_string(setting) + ".log";
        // Without the setting, -2 here, the level is 1.
        const int level = setting == -2 ? 1 : setting;
        if (setting != -2) CRegistry::getInstance()->WriteSettingImpl("Software\\Tessaly\\Yar", "LogLevel", setting);
        auto log = makeLog(name.c_str());
        CBBLog::setLogger(log);
        CBBLog::fatal("of %s", "fatal");
        CBBLog::error("of error");
        CBBLog::warn("of warn");
        CBBLog::info("of info");
        CBBLog::debug("of debug");
        EXPECT_EQ(CBBLog::isWarnEnabled(), level >= 2);
        EXPECT_EQ(CBBLog::isInfoEnabled(), level >= 3);
        EXPECT_EQ(CBBLog::isDebugEnabled(), level >= 4);
        log.reset();
        std::vector<std::string> expected(all.begin(), all.begin() + std::min(level, 4) + 1);
        expected[0] = std::to_string(setting) + " - of fatal";
        EXPECT_EQ(textsOf(inLogs(name)), expected) << setting;
    }
}

TEST_F(ALog, ReadsItsLevelOnceAndTakesAnother) {
    auto log = makeLog();
    CBBLog::setLogger(log);
    CBBLog::warn("left out");
    CRegistry::getInstance()->WriteSettingImpl("Software\\Tessaly\\Yar", "LogLevel", 4);
    EXPECT_FALSE(CBBLog::isWarnEnabled());
    CBBLog::warn("left out, too");
    log->setLogLevel(LOGLEVEL_WARN);
    EXPECT_TRUE(CBBLog::isWarnEnabled());
    CBBLog::warn("written");
    log.reset();
    EXPECT_EQ(textsOf(logPath()), std::vector<std::string>{"written"});
}

TEST_F(ALog, BeforeItsFirstLineClaimsEveryLevelExceptThroughTheInstanceFunctions) {
    auto log = makeLog();
    CBBLog::setLogger(log);
    EXPECT_TRUE(CBBLog::isDebugEnabled());
    log->_fatal("dropped");
    log->_debug("dropped");
    EXPECT_FALSE(fs::exists(root_.logsFolder())) << "nothing was opened";
    EXPECT_TRUE(CBBLog::isDebugEnabled()) << "the level was not read";
    log->AddLog(LOGLEVEL_ERROR, "reads the level");
    log->_error("kept");
    log->_warn("below the level");
    log.reset();
    EXPECT_EQ(textsOf(logPath()), (std::vector<std::string>{"reads the level", "kept"}));
}

TEST_F(ALog, HeadsEachLineWithTimeLevelAndOnRequestTheProcess) {
    auto log = boost::make_shared<CBBLog>("sub\\Recorder.one.log", true, kModuleLogSize);
    log->setLogLevel(LOGLEVEL_DEBUG);
    log->AddLog(LOGLEVEL_WARN, "careful");
    log->AddLog("by default at debug");
    log->AddLog(LOGLEVEL_FATAL, "over");
    log->AddRawLog("raw|");
    log->AddRawLog(nullptr);
    log.reset();
    const std::string time = "\\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} ";
    const std::string pid = std::to_string(getpid());
    const std::string fatal = time + "\\[FATAL\\] " + pid + " - Recorder - over\n";
    const std::string expected = time + "\\[WARN \\] " + pid + " - careful\n" + time + "\\[DEBUG\\] " + pid +
                                 " - by default at debug\n" + fatal + "raw\\|";
    const std::string written = contentsOf(inLogs("sub\\Recorder.one.log"));
    EXPECT_TRUE(std::regex_match(written, std::regex(expected))) << written;
    EXPECT_TRUE(std::regex_match(contentsOf(inLogs("errors.log")), std::regex(fatal)));
    EXPECT_EQ(echoed(), written);
    EXPECT_TRUE(std::regex_match(CBBLog::getTimeString() + " ", std::regex(time)));
}

TEST_F(ALog, CutsTextsAt20479CharactersAndLeavesFormattedObjectsWhole) {
    const std::string text(20480, 'x');
    auto log = makeLog();
    CBBLog::setLogger(log);
    CBBLog::error("%s", text.c_str());
    CBBLog::error("%s", text.c_str() + 1);
    CBBLog::error(boost::format("%1%%2%") % text % "100%s");
    CBBLog::error(boost::format("%1% of %2%") % 1);
    log.reset();
    const std::string cut = text.substr(1);
    EXPECT_EQ(textsOf(logPath()), (std::vector<std::string>{cut, cut, text + "100%s", "1 of "}));
}

__attribute__((format(printf, 1, 2))) void debugThroughAList(const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    CBBLog::debug(fmt, arguments);
    va_end(arguments);
}

TEST_F(ALog, TellsArgumentsFromArgumentLists) {
    auto log = makeLog();
    log->setLogLevel(LOGLEVEL_DEBUG);
    CBBLog::setLogger(log);
    char text[] = "text";
    debugThroughAList("%s %d", "list", 1);
    CBBLog::debug("%d", 0);
    CBBLog::debug("%s", text);
    log.reset();
    EXPECT_EQ(textsOf(logPath()), (std::vector<std::string>{"list 1", "0", "text"}));
}

TEST_F(ALog, IsReachedOnlyWhileItLives) {
    auto log = makeLog();
    auto other = makeLog("Player.log");
    CBBLog::setLogger(log);
    CBBLog::error(other, "for %s", "Player");
    CBBLog::error(boost::shared_ptr<CBBLog>(), "for nobody");
    other->setLogLevel(LOGLEVEL_FATAL);
    EXPECT_TRUE(CBBLog::isDebugEnabled()) << "the other log's level is its own";
    CBBLog::error(other, "below its level");
    log.reset();
    EXPECT_FALSE(CBBLog::isWarnEnabled());
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    CBBLog::fatal("for the dead");
    CBBLog::fatal(boost::format("for the dead"));
    debugThroughAList("for the dead");
    other.reset();
    EXPECT_EQ(textsOf(inLogs("Player.log")), std::vector<std::string>{"for Player"});
    EXPECT_EQ(contentsOf(inLogs("errors.log")), "");
}

TEST_F(ALog, BacksItsFileUpWhenItIsFullAndOverwritesTheOlderBackup) {
    const std::string filler(20000, 'x');
    auto log = makeLog();
    const auto writeUntil = [&](int& next, int end) {
        for (; next < end; ++next) log->AddLog(LOGLEVEL_ERROR, "%d %s", next, filler.c_str());
        EXPECT_TRUE(eventually([&] { return log->getLogs().empty(); }));
    };
    const auto firstOf = [&](const std::string& path) { return std::stoi(textsOf(path).at(0)); };

    int next = 0;
    writeUntil(next, 30);
    const auto backupSize = static_cast<long long>(fs::file_size(logPath() + ".back"));
    EXPECT_GE(backupSize, kModuleLogSize);
    EXPECT_LT(backupSize, kModuleLogSize + 20100);
    const int inBackup = static_cast<int>(textsOf(logPath() + ".back").size());
    EXPECT_EQ(firstOf(logPath() + ".back"), 0);
    EXPECT_EQ(firstOf(logPath()), inBackup) << "no line is lost between the two";

    writeUntil(next, 60);
    log.reset();
    EXPECT_EQ(firstOf(logPath() + ".back"), inBackup);
    EXPECT_EQ(firstOf(logPath()), 2 * inBackup);
    EXPECT_EQ(textsOf(logPath()).size(), 60U - 2U * static_cast<size_t>(inBackup));
}

TEST_F(ALog, SharesTheErrorLogWithOthersAndBacksItUpOnce) {
    auto recorder = makeLog("Recorder.log", 200);
    auto player = makeLog("Player.log", 200);
    // Both hold the file when it becomes full.
    recorder->AddLog(LOGLEVEL_FATAL, "1");
    player->AddLog(LOGLEVEL_FATAL, "2 %s", std::string(200, 'x').c_str());
    recorder->AddLog(LOGLEVEL_FATAL, "3");
    player->AddLog(LOGLEVEL_FATAL, "4");
    recorder.reset();
    player.reset();
    EXPECT_EQ(textsOf(inLogs("errors.log")), (std::vector<std::string>{"Recorder - 3", "Player - 4"}));
    const std::vector<std::string> backup = textsOf(inLogs("errors.log.back"));
    ASSERT_EQ(backup.size(), 2U);
    EXPECT_EQ(backup[0], "Recorder - 1");
    EXPECT_EQ(backup[1].substr(0, 11), "Player - 2 ");
}

TEST_F(ALog, MakesItsFilesAnewWhenTheyAreDeleted) {
    auto log = makeLog();
    log->AddLog(LOGLEVEL_FATAL, "before");
    ASSERT_TRUE(eventually([&] { return contains(contentsOf(logPath()), "before\n"); }));
    ASSERT_TRUE(fs::remove(logPath()));
    ASSERT_TRUE(fs::remove(inLogs("errors.log")));
    log->AddLog(LOGLEVEL_FATAL, "after");
    log.reset();
    EXPECT_EQ(textsOf(logPath()), std::vector<std::string>{"Recorder - after"});
    EXPECT_EQ(textsOf(inLogs("errors.log")), std::vector<std::string>{"Recorder - after"});
}

TEST_F(ALog, WritesWhatIsQueuedBeforeItGoes) {
    // Also when it goes before its thread had any time.
    for (int i = 0; i < 100; ++i) makeLog()->AddLog(LOGLEVEL_ERROR, "%d", i);
    auto log = makeLog();
    for (int i = 100; i < 2000; ++i) log->AddLog(LOGLEVEL_ERROR, "%d", i);
    log.reset();
    const std::vector<std::string> texts = textsOf(logPath());
    ASSERT_EQ(texts.size(), 2000U);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(texts[static_cast<size_t>(i)], std::to_string(i));
}

TEST_F(ALog, FlushesWhatIsQueuedUnlessItsThreadIsHeldUp) {
    struct HeldUp : CBBLog {
        HeldUp() : CBBLog("Recorder.log", false, kModuleLogSize) {}
        ~HeldUp() override { stopThread(); }
        void logLineToFile(const CStdStr& line) override {
            go.waitSignalled();
            CBBLog::logLineToFile(line);
        }
        PManualEvent go;
    };
    const auto log = boost::make_shared<HeldUp>();
    EXPECT_TRUE(CBBLog::flushAll(0));  // there is no log of the process
    CBBLog::setLogger(log);
    EXPECT_TRUE(CBBLog::flushAll(0));
    CBBLog::fatal("taken by the thread");
    CBBLog::fatal("still queued");
    EXPECT_FALSE(log->flush(20));
    log->go.set();
    EXPECT_TRUE(CBBLog::flushAll(30000));
    EXPECT_EQ(textsOf(logPath()).size(), 2U);
}

TEST_F(ALog, ThatCannotOpenItsFilesSaysSoAndFallsSilent) {
    const std::string file = root_.path() + "/file";
    std::ofstream(file) << "not a folder";
    ASSERT_EQ(setenv("YAR_ROOT", file.c_str(), 1), 0);
    auto log = makeLog();
    for (int i = 0; i < 2; ++i) log->AddLog(LOGLEVEL_FATAL, "unheard");
    log->AddRawLog("unheard");
    EXPECT_EQ(log->getFileSize(), -1);
    log.reset();
    const std::string path = file + "/Library/Logs/Tessaly/Recorder.log";
    EXPECT_EQ(echoed(), "Error: could not open log file '" + path + "': 20\nError: could not open error log file '" +
                            path + "': 20\n");
}

TEST_F(ALog, WithOneFileOnlyUsesThatOne) {
    fs::create_directories(logPath());
    auto log = makeLog();
    log->AddLog(LOGLEVEL_FATAL, "over");
    EXPECT_TRUE(contains(contentsOf(inLogs("errors.log")), " - Recorder - over\n"));
    log.reset();
    EXPECT_EQ(echoed(), "Error: could not open log file '" + logPath() + "': 21\n");
}

TEST_F(ALog, LetsOtherUsersAppendAndNoChildInherit) {
    const mode_t mask = umask(077);
    auto log = makeLog();
    log->initialize();
    umask(mask);
    EXPECT_EQ(log->getFileSize(), 0);
    for (const char* name : {"Recorder.log", "errors.log"}) {
        struct stat file {};
        ASSERT_EQ(stat(inLogs(name).c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 0777, 0666U) << name;
    }
    int found = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (!contains(fs::read_symlink(entry, gone).string(), root_.logsFolder())) continue;
        ++found;
        EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(found, 2);
}

struct Caller {
    unsigned int call(void*) {
        for (int i = 0; i < 200; ++i) {
            if (CBBLog::isDebugEnabled()) CBBLog::debug("never");
            CBBLog::error("%s %d", name.c_str(), i);
        }
        CBBLog::fatal("%s ends", name.c_str());
        return 0;
    }
    CStdStr name;
};

TEST_F(ALog, TakesLinesOfManyThreadsWithoutMixingThem) {
    CRegistry::getInstance();
    auto log = makeLog();
    CBBLog::setLogger(log);
    std::vector<Caller> callers = {{"one"}, {"two"}, {"three"}, {"four"}};
    std::vector<std::unique_ptr<PThread>> threads;
    for (Caller& caller : callers) {
        threads.emplace_back(new PThread(new PThreadDelegateMember<Caller>(&caller, &Caller::call)));
        threads.back()->Start();
    }
    for (int i = 0; i < 100; ++i) EXPECT_GE(log->getFileSize(), -1);
    for (auto& thread : threads) thread->Join();
    log.reset();

    std::vector<std::string> texts = textsOf(logPath());
    EXPECT_EQ(echoed(), contentsOf(logPath()));
    for (const Caller& caller : callers) {
        int next = 0;
        for (const std::string& text : texts) {
            if (text == caller.name + " " + std::to_string(next)) ++next;
        }
        EXPECT_EQ(next, 200) << caller.name;
    }
    EXPECT_EQ(texts.size(), 804U);
    EXPECT_EQ(textsOf(inLogs("errors.log")).size(), 4U);
}

class Redirected : public CBBLog {
public:
    explicit Redirected(std::string& lines) : CBBLog("Redirected.log", false, kModuleLogSize), lines_(lines) {}
    ~Redirected() override { stopThread(); }

protected:
    void logLineToFile(const CStdStr& line) override { lines_ += line; }

private:
    std::string& lines_;
};

TEST_F(ALog, WritesThroughWhatADerivedClassPutsInItsPlace) {
    std::string lines;
    boost::shared_ptr<CBBLog> log(new Redirected(lines));
    for (int i = 0; i < 100; ++i) log->AddLog(LOGLEVEL_ERROR, "line %d", i);
    log.reset();
    EXPECT_TRUE(contains(lines, "[ERROR] - line 99\n"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 100);
    EXPECT_EQ(contentsOf(inLogs("Redirected.log")), "");
}

}  // namespace
