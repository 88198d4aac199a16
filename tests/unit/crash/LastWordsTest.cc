#include "crash/LastWords.h"

#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

class LastWordsOfAModule : public testing::Test {
protected:
    LastWordsOfAModule() {
        std::filesystem::create_directories(root_.logsFolder());
        words_ = std::make_unique<kel::crash::LastWords>("Recorder");
    }

    void append(const char* name, const std::string& text) const { std::ofstream(path(name), std::ios::app) << text; }
    std::string path(const char* name) const { return root_.logsFolder() + "/" + name; }
    std::vector<std::string> linesOf(const char* name) const {
        std::ifstream file(path(name));
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }

    TempRoot root_;
    std::unique_ptr<kel::crash::LastWords> words_;
};

TEST_F(LastWordsOfAModule, StandInBothFilesAsTheLogWritesThem) {
    // time() may lag behind the clock that lines take their time from.
    const auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
    words_->Begin();
    const std::time_t before = now();
    words_->Write("crash of it");
    const std::time_t after = now();
    for (const char* name : {"Recorder.log", "errors.log"}) {
        const std::vector<std::string> lines = linesOf(name);
        ASSERT_EQ(lines.size(), 1U) << name;
        std::smatch parts;
        const std::regex form(R"((\d{4}/\d\d/\d\d \d\d:\d\d:\d\d)\.\d{3} \[FATAL\] - Recorder - crash of it)");
        ASSERT_TRUE(std::regex_match(lines[0], parts, form)) << lines[0];
        std::tm local{};
        strptime(parts[1].str().c_str(), "%Y/%m/%d %H:%M:%S", &local);
        local.tm_isdst = -1;
        const std::time_t told = std::mktime(&local);
        EXPECT_GE(told, before);
        EXPECT_LE(told, after);
    }
}

TEST_F(LastWordsOfAModule, AreNotWrittenWhereTheLogHasWrittenThemSinceTheBeginning) {
    append("Recorder.log", "crash of it\n");
    append("errors.log", "crash of it\n");
    words_->Begin();
    append("errors.log", "crash of it\n");
    words_->Write("crash of it");
    EXPECT_EQ(linesOf("Recorder.log").size(), 2U);
    EXPECT_EQ(linesOf("errors.log").size(), 2U);
}

TEST_F(LastWordsOfAModule, AreWrittenToAFileThatHasBeenRenamedMeanwhile) {
    append("errors.log", std::string(1000, 'x') + "\n");
    words_->Begin();
    std::filesystem::rename(path("errors.log"), path("errors.log.back"));
    append("errors.log", "another\n");
    words_->Write("crash of it");
    EXPECT_EQ(linesOf("errors.log").size(), 2U);
}

TEST_F(LastWordsOfAModule, AreLedNowhereElseAndStayOneLine) {
    std::filesystem::create_symlink(root_.path() + "/elsewhere", path("Recorder.log"));
    words_->Begin();
    words_->Write("boom\n2026");
    EXPECT_FALSE(std::filesystem::exists(root_.path() + "/elsewhere"));
    ASSERT_EQ(linesOf("errors.log").size(), 1U);
    EXPECT_TRUE(linesOf("errors.log")[0].ends_with(" - boom\\n2026"));
}

TEST_F(LastWordsOfAModule, AreCutWhenTheyAreTooLong) {
    words_->Begin();
    words_->Write(std::string(100000, 'w').c_str());
    const std::vector<std::string> lines = linesOf("errors.log");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_GT(lines[0].size(), 20000U);
}

}  // namespace
