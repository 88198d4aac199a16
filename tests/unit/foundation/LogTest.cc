#include "foundation/Log.h"

#include "foundation/Settings.h"
#include "support/TempRoot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr long long moduleLogSize = 524288;

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

using Texts = std::vector<std::string>;

// What follows the header in each line.
Texts textsOf(const std::string& path) {
    Texts texts;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) texts.push_back(line.substr(line.find("] - ") + 4));
    return texts;
}

class ALog : public testing::Test {
protected:
    ALog() { testing::internal::CaptureStdout(); }
    ~ALog() override {
        CBBLog::setLogger(nullptr);
        if (capturing_) testing::internal::GetCapturedStdout();
    }

    static boost::shared_ptr<CBBLog> makeLog(const char* name = "Recorder.log", long long size = moduleLogSize) {
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
    CRegistry::getInstance()->WriteSettingImpl("Software\\Tessaly\\Yar", "LogLevel", 4);
    log->_warn("below the level, which is read once");
    log->setLogLevel(LOGLEVEL_WARN);
    EXPECT_TRUE(CBBLog::isWarnEnabled());
    CBBLog::warn("kept, too");
    log.reset();
    EXPECT_EQ(textsOf(logPath()), (Texts{"reads the level", "kept", "kept, too"}));
}

TEST_F(ALog, HeadsEachLineWithTimeLevelAndOnRequestTheProcess) {
    auto log = boost::make_shared<CBBLog>("sub\\Recorder.one.log", true, moduleLogSize);
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

__attribute__((format(printf, 1, 2))) void debugThroughAList(const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    CBBLog::debug(fmt, arguments);
    va_end(arguments);
}

TEST_F(ALog, WritesNewsWhereErrorsAreWritten) {
    auto log = makeLog();
    CBBLog::setLogger(log);
    log->setLogLevel(LOGLEVEL_ERROR);
    CBBLog::note("kept");
    log->setLogLevel(LOGLEVEL_FATAL);
    CBBLog::note("dropped");
    log.reset();
    EXPECT_NE(contentsOf(logPath()).find(" [NOTE ] - kept\n"), std::string::npos);
    EXPECT_EQ(textsOf(logPath()), Texts{"kept"});
}

TEST_F(ALog, TellsArgumentsFromListsAndCutsTextsAt20479CharactersButNoFormattedObjects) {
    const std::string text(20480, 'x');
    auto log = makeLog();
    log->setLogLevel(LOGLEVEL_DEBUG);
    CBBLog::setLogger(log);
    char pointer[] = "text";
    debugThroughAList("%s %d", "list", 1);
    CBBLog::debug("%d", 0);
    CBBLog::debug("%s", pointer);
    CBBLog::error("%s", text.c_str());
    CBBLog::error("%s", text.c_str() + 1);
    CBBLog::error(boost::format("%1%%2%") % text % "100%s");
    CBBLog::error(boost::format("%1% of %2%") % 1);
    log.reset();
    const std::string cut = text.substr(1);
    EXPECT_EQ(textsOf(logPath()), (Texts{"list 1", "0", "text", cut, cut, text + "100%s", "1 of "}));
}

TEST_F(ALog, KeepsEachLineOneLineWhateverItTells) {
    auto log = makeLog();
    log->AddLog(LOGLEVEL_ERROR, "from %s", "a\nb\r\tc\x1b[2J\x7f \\n \xc2\x9b \xc2\xb5 \xc2");
    CBBLog::setLogger(log);
    CBBLog::error(boost::format("from %1%") % std::string("a\0b", 3));
    log.reset();
    EXPECT_EQ(textsOf(logPath()), (Texts{R"(from a\nb\r\tc\x1b[2J\x7f \n \xc2\x9b )"
                                         "\xc2\xb5 \xc2",
                                         R"(from a\x00b)"}));
}

TEST_F(ALog, FoldsRepeatsOfErrorsAndWarningsAndTellsOfThemBeforeItGoes) {
    auto log = makeLog();
    log->setLogLevel(LOGLEVEL_INFO);
    for (int i = 0; i < 5000; ++i) {
        log->AddLog(LOGLEVEL_ERROR, "error %d", i);
        log->AddLog(LOGLEVEL_ERROR, "%s", i == 0 ? "one text" : i == 1 ? "another" : "a third");
    }
    for (int i = 0; i < 21; ++i) {
        log->AddLog(LOGLEVEL_WARN, "warning %d", i);
        log->AddLog(LOGLEVEL_INFO, "asked for");
        log->AddLog(LOGLEVEL_FATAL, "fatal");
    }
    log.reset();
    const Texts texts = textsOf(logPath());
    const auto count = [&texts](const std::string& begin) {
        return std::count_if(texts.begin(), texts.end(), [&](const auto& text) { return text.rfind(begin, 0) == 0; });
    };
    EXPECT_EQ(count("error "), 21);
    EXPECT_EQ(count("error 20 ... and 4,979 more in "), 1);
    EXPECT_EQ(count("one text"), 1);
    EXPECT_EQ(count("another"), 1);
    EXPECT_EQ(count("a third"), 21);
    EXPECT_EQ(count("warning "), 21);
    EXPECT_EQ(count("asked for"), 21);
    EXPECT_EQ(count("Recorder - fatal"), 21);
}

TEST_F(ALog, IsReachedOnlyWhileItLives) {
    auto log = makeLog();
    auto other = makeLog("Player.log");
    CBBLog::setLogger(log);
    CBBLog::error(other, "for %s", "Player");
    CBBLog::error(boost::shared_ptr<CBBLog>(), "for nobody");
    log.reset();
    EXPECT_FALSE(CBBLog::isWarnEnabled());
    CBBLog::fatal("for the dead");
    CBBLog::fatal(boost::format("for the dead"));
    debugThroughAList("for the dead");
    other.reset();
    EXPECT_EQ(textsOf(inLogs("Player.log")), Texts{"for Player"});
    EXPECT_EQ(contentsOf(inLogs("errors.log")), "");
}

TEST_F(ALog, SharesTheErrorLogWithOthersAndBacksItUpOnce) {
    const std::string filler(200, 'x');
    auto recorder = makeLog("Recorder.log", 200);
    auto player = makeLog("Player.log", 200);
    // Both hold the file when it becomes full.
    recorder->AddLog(LOGLEVEL_FATAL, "1");
    player->AddLog(LOGLEVEL_FATAL, "2 %s", filler.c_str());
    recorder->AddLog(LOGLEVEL_FATAL, "3");
    player->AddLog(LOGLEVEL_FATAL, "4");
    recorder.reset();
    player.reset();
    EXPECT_EQ(textsOf(inLogs("errors.log")), (Texts{"Recorder - 3", "Player - 4"}));
    const Texts backup = {"Recorder - 1", "Player - 2 " + filler};
    EXPECT_EQ(textsOf(inLogs("errors.log.back")), backup);
}

TEST_F(ALog, MakesItsFilesAnewWhenTheyAreDeletedAndItCan) {
    auto log = makeLog();
    log->AddLog(LOGLEVEL_FATAL, "before");
    ASSERT_TRUE(log->flush(30000));
    ASSERT_EQ(textsOf(logPath()), Texts{"Recorder - before"});
    ASSERT_TRUE(fs::remove(logPath()));
    ASSERT_TRUE(fs::remove(inLogs("errors.log")));
    fs::rename(root_.logsFolder(), root_.path() + "/moved");
    log->AddLog(LOGLEVEL_FATAL, "nowhere");
    ASSERT_TRUE(log->flush(30000));
    fs::rename(root_.path() + "/moved", root_.logsFolder());
    log->AddLog(LOGLEVEL_FATAL, "after");
    log.reset();
    EXPECT_EQ(textsOf(logPath()), Texts{"Recorder - after"});
    EXPECT_EQ(textsOf(inLogs("errors.log")), Texts{"Recorder - after"});
}

TEST_F(ALog, WritesWhatIsQueuedBeforeItGoes) {
    // Also when it goes before its thread had any time.
    for (int i = 0; i < 100; ++i) makeLog()->AddLog(LOGLEVEL_ERROR, "%d", i);
    auto log = makeLog();
    log->setLogLevel(LOGLEVEL_INFO);
    for (int i = 100; i < 2000; ++i) log->AddLog(LOGLEVEL_INFO, "%d", i);
    log.reset();
    Texts expected;
    for (int i = 0; i < 2000; ++i) expected.push_back(std::to_string(i));
    EXPECT_EQ(textsOf(logPath()), expected);
}

TEST_F(ALog, FlushesWhatIsQueuedUnlessItsThreadIsHeldUp) {
    struct HeldUp : CBBLog {
        HeldUp() : CBBLog("Recorder.log", false, moduleLogSize) {}
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

TEST_F(ALog, WithOneFileOnlyUsesThatOne) {
    fs::create_directories(logPath());
    auto log = makeLog();
    log->AddLog(LOGLEVEL_FATAL, "over");
    EXPECT_EQ(textsOf(inLogs("errors.log")), Texts{"Recorder - over"});
    log.reset();
    EXPECT_EQ(echoed(), "Error: could not open log file '" + logPath() + "': 21\n");
}

TEST_F(ALog, IsLedNowhereElseAndThenSpeaksOnStandardError) {
    const std::string elsewhere = root_.path() + "/elsewhere";
    const std::string victim = elsewhere + "/Recorder.log";
    const std::string folder = root_.logsFolder();
    fs::create_directory(elsewhere);
    std::ofstream(victim) << "its own\n";
    fs::permissions(victim, fs::perms(0600));
    const std::map<std::string, std::function<void()>> ways = {
        {logPath() + " is not used: it is a link", [&] { fs::create_symlink(victim, logPath()); }},
        {logPath() + " is not used: it is no file", [&] { mkfifo(logPath().c_str(), 0666); }},
        {folder + " is not used: it is a link",
         [&] {
             fs::remove(folder);
             fs::create_directory_symlink(elsewhere, folder);
         }},
        {folder + " is not used: it is a folder of another user",
         [&] { EXPECT_EQ(chown(folder.c_str(), 4711, 0), 0); }},
        {logPath() + " cannot be opened: Not a directory",
         [&] {
             fs::remove_all(fs::path(folder).parent_path());
             std::ofstream(fs::path(folder).parent_path());
         }},
    };
    for (const auto& [problem, prepare] : ways) {
        if (problem.find("another user") != std::string::npos && geteuid() != 0) continue;  // nobody else can be played
        fs::remove_all(fs::path(folder).parent_path());
        fs::create_directories(folder);
        prepare();
        testing::internal::CaptureStderr();
        auto log = makeLog();
        log->AddLog(LOGLEVEL_ERROR, "told");
        log->AddLog(LOGLEVEL_WARN, "not asked for");
        log.reset();
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_NE(said.find(" [ERROR] - Log: " + problem), std::string::npos) << said;
        EXPECT_NE(said.find(" [ERROR] - told\n"), std::string::npos) << said;
        EXPECT_EQ(said.find("not asked for"), std::string::npos) << said;
        EXPECT_EQ(contentsOf(victim), "its own\n");
        EXPECT_EQ(fs::status(victim).permissions(), fs::perms(0600));
    }
}

TEST_F(ALog, StaysWithItsFileWhenALinkTakesItsName) {
    auto log = makeLog();
    log->AddLog(LOGLEVEL_ERROR, "before");
    ASSERT_TRUE(log->flush(30000));
    fs::rename(logPath(), inLogs("moved"));
    fs::create_symlink(root_.path() + "/elsewhere", logPath());
    log->AddLog(LOGLEVEL_ERROR, "after");
    log.reset();
    EXPECT_EQ(textsOf(inLogs("moved")), (Texts{"before", "after"}));
    EXPECT_FALSE(fs::exists(root_.path() + "/elsewhere"));
}

TEST_F(ALog, LetsOtherUsersAppendAndNoChildInherit) {
    const mode_t mask = umask(077);
    auto log = makeLog();
    log->initialize();
    umask(mask);
    EXPECT_EQ(log->getFileSize(), 0);
    for (const char* name : {"Recorder.log", "errors.log"})
        EXPECT_EQ(fs::status(inLogs(name)).permissions(), fs::perms(0666)) << name;
    int found = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry, gone).string().find(root_.logsFolder()) == std::string::npos) continue;
        ++found;
        EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(found, 2);
}

TEST_F(ALog, TakesLinesOfManyThreadsWithoutMixingThem) {
    CRegistry::getInstance();
    auto log = makeLog();
    log->setLogLevel(LOGLEVEL_INFO);
    CBBLog::setLogger(log);
    const Texts callers = {"one", "two", "three", "four"};
    std::vector<std::thread> threads;
    for (const std::string& caller : callers) {
        threads.emplace_back([&caller] {
            for (int i = 0; i < 200; ++i) {
                if (CBBLog::isDebugEnabled()) CBBLog::debug("never");
                CBBLog::info("%s %d", caller.c_str(), i);
            }
            CBBLog::fatal("%s ends", caller.c_str());
        });
    }
    for (int i = 0; i < 100; ++i) EXPECT_GE(log->getFileSize(), -1);
    for (auto& thread : threads) thread.join();
    log.reset();

    const Texts texts = textsOf(logPath());
    EXPECT_EQ(echoed(), contentsOf(logPath()));
    for (const std::string& caller : callers) {
        int next = 0;
        for (const std::string& text : texts) next += text == caller + " " + std::to_string(next);
        EXPECT_EQ(next, 200) << caller;
    }
    EXPECT_EQ(texts.size(), 804U);
    EXPECT_EQ(textsOf(inLogs("errors.log")).size(), 4U);
}

}  // namespace
