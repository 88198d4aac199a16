#include "registry/Registration.h"

#include "foundation/Settings.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr char recorderFile[] =
    "<satellite><id>3</id><satName>Recorder</satName><ip>192.168.1.20</ip><port>50123</port><hostname>studio</hostname>"
    "<kelProtocolVersion>2</kelProtocolVersion><service><name>Schedule</name><description>Recording schedule"
    "</description></service></satellite>";

CStdStr Changed(CStdStr text, const char* from, const char* to) {
    EXPECT_GT(text.Replace(from, to), 0) << from;
    return text;
}

class Registry : public CRegistration {
public:
    Registry() : CRegistration([] { return uint32_t{0}; }) {}
};

class SatelliteFiles : public testing::Test {
protected:
    SatelliteFiles() {  // syncing is for the test of power cuts; here it is only slow
        CRegistry::getInstance()->WriteSettingImpl("Software\\Tessaly\\Yar\\Config", "kel.syncFiles", 0);
    }

    static int Register(CRegistration& registry, const CStdStr& name) {
        int satId = 0;
        registry.AddSatellite(name, "192.168.1.20", 50123, "studio", 2, &satId);
        registry.AddService(name, "Schedule", "Recording schedule");
        EXPECT_EQ(registry.SerializeSatellite(name), 0);
        return satId;
    }

    // The id under which a directory that starts now would know the satellite; -1 for none.
    static int IdAfterRestart(const CStdStr& name) {
        Registry registry;
        EXPECT_EQ(registry.LoadAllSatFiles(), 0);
        return IdOf(registry, name);
    }

    static int IdOf(const CRegistration& registry, const CStdStr& name) {
        const auto satellite = registry.GetSatelliteStruct(name);
        return satellite ? satellite->satId : -1;
    }

    std::string PathOf(const std::string& name) const { return folder_ + "/" + name + ".xml"; }

    static std::set<std::string> NamesIn(const std::string& folder) {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
        return names;
    }

    // The names of everything in the folder but its two folders.
    std::set<std::string> Files() const {
        std::set<std::string> names = NamesIn(folder_);
        names.erase("Registration");
        names.erase("Damaged");
        return names;
    }

    static void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

    static std::string TextOf(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string Registration() const { return TextOf(registrationPath_); }

    int LastIdOnDisk() const { return std::stoi(Registration().substr(Registration().find("<lastSatId>") + 11)); }

    TempRoot root_;
    const std::string folder_ = root_.dataFolder() + "/Satellites";
    const std::string registrationPath_ = folder_ + "/Registration/Registration.xml";
};

using Set = std::set<std::string>;

TEST_F(SatelliteFiles, AreLoadedOnlyWithTheRegistrationFileButTheirIdsAreNotGivenOutAgain) {
    Registry before;
    Register(before, "Foo");
    const std::string registration = Registration();
    const std::string noNumber = Changed(registration, "Id>1<", "Id>one<");
    for (const std::string& text : {std::string(), std::string(Changed(registration, "lastSatId", "last")), noNumber}) {
        Write(registrationPath_, text);
        Registry registry;
        EXPECT_EQ(registry.LoadAllSatFiles(), text == noNumber ? 0 : 11);
        EXPECT_EQ(IdOf(registry, "Foo"), text == noNumber ? 1 : -1);
        EXPECT_EQ(TextOf(registrationPath_ + ".damaged"), text);
        int satId = 0;
        registry.AddSatellite("Bar", "127.0.0.1", 1, "studio", 1, &satId);
        EXPECT_EQ(satId, 2);
    }
    EXPECT_EQ(Files(), Set{"Foo.xml"});
    Write(registrationPath_, registration);
    EXPECT_EQ(IdAfterRestart("Foo"), 1);
}

TEST_F(SatelliteFiles, ThatAreDamagedAmongServicesGiveWhatCameBefore) {
    Registry before;
    Register(before, "Good");
    const CStdStr good(recorderFile);
    Write(PathOf("openService"), Changed(good, "</service>", ""));
    Write(PathOf("Partial"), Changed(Changed(good, "Recorder<", "Partial<"), "</service>",
                                     "</service><service><name></name><description/></service>"));
    Write(PathOf("Silent"), Changed(Changed(good, "Recorder<", "Silent<"), "Recording schedule", ""));
    Write(PathOf("a Empty"), "");
    Write(PathOf("a Cut"), good.substr(0, 40));
    Write(PathOf("a Binary"), std::string("\0\1\2", 3));
    Write(PathOf("a NoId"), Changed(good, "<id>3</id>", ""));
    Write(PathOf("a TwoPorts"), Changed(good, "<port>", "<port>1</port><port>"));
    Write(PathOf("a NoName"), Changed(good, "<satName>Recorder", "<satName>"));
    for (const char* name : {"text.txt", "upper.XML", "noextension", "dot."}) Write(folder_ + "/" + name, good);
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), 0);
    EXPECT_EQ(Files(), (Set{"Good.xml", "Silent.xml", "dot.", "noextension", "text.txt", "upper.XML"}));
    EXPECT_EQ(NamesIn(folder_ + "/Damaged"), (Set{"Partial.xml", "a Binary.xml", "a Cut.xml", "a Empty.xml",
                                                  "a NoId.xml", "a NoName.xml", "a TwoPorts.xml", "openService.xml"}));
    EXPECT_EQ(TextOf(folder_ + "/Damaged/openService.xml"), Changed(good, "</service>", ""));
    std::vector<KelServiceInfo> found;
    registry.GetServiceInfo("Schedule", "Partial", found, nullptr);
    registry.GetServiceInfo("Schedule", "Silent", found, nullptr);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].description, "");
}

TEST_F(SatelliteFiles, ThatAreDamagedAreKeptToTheLastTwenty) {
    Registry before;
    Register(before, "Good");
    for (int i = 10; i < 32; ++i) Write(PathOf("Damaged" + std::to_string(i)), "<satellite>");
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), 0);
    const Set kept = NamesIn(folder_ + "/Damaged");
    EXPECT_EQ(kept.size(), 20u);
    EXPECT_EQ(kept.count("Damaged10.xml"), 0u) << "the first that was put aside";
    EXPECT_EQ(kept.count("Damaged31.xml"), 1u);
}

TEST_F(SatelliteFiles, OfTheSameSatelliteAreLeftWithTheHighestIdAndThenTheOwnName) {
    Registry before;
    Register(before, "Good");
    Write(PathOf("RECORDER"), Changed(recorderFile, "Recorder<", "RECORDER<"));
    Write(PathOf("recorder"), Changed(recorderFile, "<id>3", "<id>2"));
    Write(PathOf("Another"),
          Changed(Changed(Changed(recorderFile, "Recorder<", "Good<"), ">3<", ">1<"), "dule<", "d<"));
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), 0);
    EXPECT_EQ(IdOf(registry, "Recorder"), 3);
    EXPECT_EQ(Files(), (Set{"Good.xml", "RECORDER.xml"}));
    std::vector<KelServiceInfo> found;
    registry.GetServiceInfo("Sched", "Good", found, nullptr);
    EXPECT_TRUE(found.empty()) << "the record is that of the own file";
    EXPECT_EQ(IdAfterRestart("Recorder"), 3);
}

TEST_F(SatelliteFiles, StoredUnderAnotherNameGoWithTheirSatelliteOnceItHasAFileOfItsOwn) {
    Registry before;
    Register(before, "Foo");
    Register(before, "Bar");
    fs::rename(PathOf("Foo"), PathOf("Copy"));
    fs::rename(PathOf("Bar"), PathOf("Foo"));
    Write(PathOf("Slash"), Changed(recorderFile, "Recorder<", "a/b<"));
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), 0);
    registry.SerializeSatellite("Foo");
    EXPECT_EQ(Files(), (Set{"Foo.xml", "Slash.xml"}));
    registry.SerializeSatellite("Bar");
    EXPECT_EQ(Files(), (Set{"Bar.xml", "Foo.xml", "Slash.xml"}));
    registry.SerializeSatellite("a/b");  // no file can have that name
    EXPECT_EQ(registry.DeleteSatelliteFile("a/b", 4), 2);
    EXPECT_EQ(registry.RemoveSatellite("a/b", 4), 0);
    EXPECT_EQ(Files(), (Set{"Bar.xml", "Foo.xml", "Slash.xml"})) << "its only file";
    EXPECT_EQ(IdOf(registry, "a/b"), 3) << "a newer satellite of the name is not removed";
    registry.RemoveSatellite("a/b", 3);
    EXPECT_EQ(Files(), (Set{"Bar.xml", "Foo.xml"}));
    EXPECT_EQ(IdAfterRestart("Foo"), 1);
    EXPECT_EQ(IdAfterRestart("Bar"), 2);
}

TEST_F(SatelliteFiles, ThatCouldNotBeWrittenAreWrittenLater) {
    Registry registry;
    fs::create_directory(registrationPath_);
    Register(registry, "Foo");
    Register(registry, "Bar");
    registry.SaveIfFailed();
    EXPECT_EQ(Files(), Set{}) << "without the counter no satellite";
    fs::remove(registrationPath_);
    fs::create_directory(PathOf("Foo"));
    registry.RemoveSatellite("Bar", 2);
    registry.SaveIfFailed();
    EXPECT_EQ(LastIdOnDisk(), 2);
    fs::remove(PathOf("Foo"));
    registry.SaveIfFailed();
    EXPECT_EQ(Files(), Set{"Foo.xml"});
    EXPECT_EQ(IdAfterRestart("Foo"), 1);
}

TEST_F(SatelliteFiles, ComeBackWithTheirFolder) {
    Registry registry;
    Register(registry, "Foo");
    Register(registry, "Bar");
    const auto isBack = [&] {
        registry.SaveIfFailed();
        EXPECT_EQ(Files(), (Set{"Bar.xml", "Foo.xml"}));
        EXPECT_EQ(IdAfterRestart("Foo"), 1);
    };
    fs::remove_all(folder_);
    Register(registry, "Bar");
    isBack();
    fs::rename(folder_, folder_ + ".moved");
    isBack();
    fs::remove_all(folder_ + "/Registration");
    isBack();
}

TEST_F(SatelliteFiles, OfAFolderThatWasUnusableAtTheStartAreNotWrittenOver) {
    Registry before;
    for (int i = 0; i < 5; ++i) before.RemoveSatellite("Gone", Register(before, "Gone"));
    Register(before, "Foo");
    const std::string registration = Registration();
    fs::rename(folder_, folder_ + ".away");
    std::ofstream(folder_) << "in its place";
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), -1);
    fs::remove(folder_);
    fs::rename(folder_ + ".away", folder_);
    EXPECT_EQ(Register(registry, "Bar"), 1);
    EXPECT_EQ(Register(registry, "Baz"), 7) << "behind the last that was given out before";
    EXPECT_EQ(TextOf(registrationPath_ + ".damaged"), registration);
    EXPECT_EQ(Files(), (Set{"Bar.xml", "Baz.xml", "Foo.xml"}));
    registry.SaveIfFailed();
    fs::remove_all(folder_);
    registry.SaveIfFailed();
    EXPECT_EQ(Files(), (Set{"Bar.xml", "Baz.xml"})) << "it has taken the folder for its own";
}

TEST_F(SatelliteFiles, AreRidOfWhatAKilledDirectoryLeftBehindUnlessOneIsAtWork) {
    const std::string ours = folder_ + "/.kel.77.1.new";
    const std::string theirs = folder_ + "/.kelp.new";
    {
        Registry atWork;
        for (const std::string& path : {ours, theirs, folder_ + "/Registration/.kel.77.2.new"}) Write(path, "part");
        Registry second;
        EXPECT_TRUE(fs::exists(ours));
    }
    Registry next;
    EXPECT_EQ(Files(), Set{".kelp.new"});
    EXPECT_TRUE(fs::is_empty(folder_ + "/Registration"));
}

TEST_F(SatelliteFiles, AreNeitherWrittenNorDeletedInAFolderOfSomebodyElse) {
    const std::string elsewhere = root_.path() + "/elsewhere";
    fs::create_directories(elsewhere + "/Registration");
    fs::create_directories(root_.dataFolder());
    fs::permissions(elsewhere, fs::perms{0700});
    Write(elsewhere + "/Foo.xml", "theirs");
    Write(elsewhere + "/Registration/Registration.xml", "theirs");
    fs::create_symlink(elsewhere, folder_);
    const auto isLeftAlone = [&] {
        Registry registry;
        EXPECT_EQ(registry.LoadAllSatFiles(), -1);
        registry.RemoveSatellite("Foo", Register(registry, "Foo"));
        Register(registry, "Bar");
        registry.SaveIfFailed();
        EXPECT_EQ(NamesIn(elsewhere), (Set{"Foo.xml", "Registration"}));
        EXPECT_EQ(TextOf(elsewhere + "/Foo.xml"), "theirs");
        EXPECT_EQ(fs::status(elsewhere).permissions(), fs::perms{0700});
    };
    isLeftAlone();
    if (geteuid() != 0) return;  // only root can give the folder away
    fs::remove(folder_);
    fs::rename(elsewhere, folder_);
    fs::create_symlink(folder_, elsewhere);
    ASSERT_EQ(chown(folder_.c_str(), 12345, 12345), 0);
    isLeftAlone();
}

TEST_F(SatelliteFiles, NeedANameThatAFileCanHave) {
    Registry registry;
    const std::string longest(251, 'n');
    for (const CStdStr& name : {CStdStr("../out"), CStdStr("nul\0nul", 7), CStdStr(longest + "n")}) {
        const int satId = Register(registry, name);
        EXPECT_EQ(IdOf(registry, name), satId);
        EXPECT_EQ(Files(), Set{});
        EXPECT_FALSE(fs::exists(folder_ + "/../out.xml"));
        EXPECT_EQ(LastIdOnDisk(), satId);
        registry.RemoveSatellite(name, satId);
    }
    for (const std::string& name : {std::string("."), std::string(".."), longest}) Register(registry, name);
    EXPECT_EQ(Files(), (Set{"..xml", "...xml", longest + ".xml"}));
    EXPECT_EQ(IdAfterRestart(".."), 5);
}

TEST_F(SatelliteFiles, DoNotComeBackWhenTheyAreWrittenWhileTheirSatelliteIsRemoved) {
    Registry registry;
    std::atomic<bool> done{false};
    size_t leftBehind = 0;
    std::vector<std::thread> writers;
    for (const char* name : {"Foo", "foo"}) {
        writers.emplace_back([&, name] {
            while (!done) registry.SerializeSatellite(name);
        });
    }
    for (int round = 0; round < 300; ++round) {
        const CStdStr name(round % 2 ? "Foo" : "foo");
        const int satId = Register(registry, name);
        if (round % 3 == 0) {
            EXPECT_EQ(Register(registry, round % 2 ? "foo" : "Foo"), satId + 1);
        }
        registry.RemoveSatellite(name, IdOf(registry, name));
        leftBehind += Files().count("Foo.xml") + Files().count("foo.xml");
    }
    done = true;
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(leftBehind, 0u);
}

}  // namespace
