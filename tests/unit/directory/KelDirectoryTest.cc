#include "directory/KelDirectory.h"

#include "DirectoryFixture.h"
#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <filesystem>

namespace {

class ADirectory : public DirectoryFixture {};

TEST_F(ADirectory, StopsBySignalsThatCameBeforeItRan) {
    directory_->abort();
    Init();
    directory_->run();
    directory_->close();
}

TEST_F(ADirectory, ReplacesTheRecordOfAnEarlierRunThatWasKilled) {
    Init();
    const std::string own = root_.dataFolder() + "/Satellites/MainRegister.xml";
    std::filesystem::copy_file(own, root_.path() + "/kept.xml");
    Restart();
    std::filesystem::copy_file(root_.path() + "/kept.xml", own);
    Init();
    EXPECT_EQ(IdOf("MainRegister"), 2);
}

// A log that keeps the news.
class News : public CBBLog {
public:
    News() : CBBLog("News.log", false, 1 << 20) {}
    std::vector<std::string> lines;

protected:
    void _AddLog(const char* fmt, va_list arguments, LOGLEVEL level) override {
        std::array<char, 1000> line{};
        std::vsnprintf(line.data(), line.size(), fmt, arguments);
        const std::string text = line.data();  // other threads have news of other things
        if (level == LOGLEVEL_NOTE && text.find("MainRegister (") != std::string::npos) lines.push_back(text);
    }
};

TEST_F(ADirectory, SaysWhoSilencesWithdrawsOrRemovesASatelliteThatIsNotHis) {
    Init();
    const boost::shared_ptr<News> news(new News);
    news->setLogLevel(LOGLEVEL_ERROR);
    CBBLog::setLogger(news);
    const ScopedVariant seconds = MakeInt(1);
    const ScopedVariant own = RecordOf("MainRegister", IdOf("MainRegister"), 5001, {{"AddKelUsers", ""}});
    ScopedVariant out;
    EXPECT_EQ(directory_->SatSetBeRightBack(&seconds, &out, "127.0.0.1", "MainRegister"), 0);
    EXPECT_EQ(directory_->SatUnRegister(&own, &out, "127.0.0.1", "mainregister"), 0);
    EXPECT_EQ(news->lines.size(), 0u);
    EXPECT_EQ(directory_->SatSetBeRightBack(&seconds, &out, "192.0.2.1", "MainRegister"), 0);
    EXPECT_EQ(directory_->SatUnRegister(&own, &out, "192.0.2.1", "MainRegister"), 0);
    EXPECT_EQ(directory_->SatRemove(&own, "127.0.0.1", "Stranger"), 0);
    CBBLog::setLogger(nullptr);
    const std::string who = "MainRegister (satId 1) at 127.0.0.1:" + std::to_string(directoryPort_.number());
    const std::vector<std::string> expected{
        "Satellite " + who + " is not checked for 1 s at the request of 192.0.2.1",
        "1 services of " + who + " withdrawn at the request of \"MainRegister\" from 192.0.2.1",
        "Satellite " + who + " removed at the request of \"Stranger\" from 127.0.0.1"};
    EXPECT_EQ(news->lines, expected);
}

TEST_F(ADirectory, RecordsSatellitesOfItsOwnMachineUnderTheLoopbackAddress) {
    EXPECT_EQ(directory_->getIPToUse("127.0.0.1"), "127.0.0.1");
    EXPECT_EQ(directory_->getIPToUse("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(directory_->getIPToUse(""), "");
    EXPECT_EQ(directory_->getIPToUse(nullptr), "");
    std::vector<in_addr> own;
    yar::networkutils::GetLocalIPAddressList(own);
    for (const in_addr address : own) {
        EXPECT_EQ(directory_->getIPToUse(yar::networkutils::inet_ntos(address).c_str()), "127.0.0.1");
    }
}

}  // namespace
