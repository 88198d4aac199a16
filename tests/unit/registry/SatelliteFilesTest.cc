#include "registry/Registration.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

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
    "<?xml version='1.0'?>\n"
    "<satellite>\n"
    "\t<id>3</id>\n"
    "\t<satName>Recorder</satName>\n"
    "\t<ip>192.168.1.20</ip>\n"
    "\t<port>50123</port>\n"
    "\t<hostname>studio</hostname>\n"
    "\t<kelProtocolVersion>2</kelProtocolVersion>\n"
    "\t<service>\n"
    "\t\t<name>Schedule</name>\n"
    "\t\t<description>Recording schedule</description>\n"
    "\t</service>\n"
    "</satellite>\n";

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

    std::string Folder() const { return root_.dataFolder() + "/Satellites"; }
    std::string RegistrationPath() const { return Folder() + "/Registration/Registration.xml"; }
    std::string PathOf(const std::string& name) const { return Folder() + "/" + name + ".xml"; }

    // The names of everything in the folder but the folder of the registration file.
    std::set<std::string> Files() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(Folder())) names.insert(entry.path().filename());
        names.erase("Registration");
        return names;
    }

    static std::string Read(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static void Write(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }

    int LastIdOnDisk() const {
        const std::string text = Read(RegistrationPath());
        const size_t at = text.find("<lastSatId>");
        return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 11);
    }

    TempRoot root_;
};

using Set = std::set<std::string>;

TEST_F(SatelliteFiles, AreReadOnlyWithTheRegistrationFile) {
    Registry before;
    Register(before, "Foo");
    const std::string registration = Read(RegistrationPath());
    for (const std::string& text : {std::string(), std::string(Changed(registration, "lastSatId", "last"))}) {
        Write(RegistrationPath(), text);
        Registry registry;
        EXPECT_EQ(registry.LoadAllSatFiles(), 11);
        EXPECT_EQ(IdOf(registry, "Foo"), -1);
    }
    EXPECT_EQ(Files(), Set{"Foo.xml"});
    Write(RegistrationPath(), registration);
    EXPECT_EQ(IdAfterRestart("Foo"), 1);
}

TEST_F(SatelliteFiles, ThatAreDamagedAmongServicesGiveWhatCameBefore) {
    Registry before;
    Register(before, "Good");
    const CStdStr good(recorderFile);
    Write(PathOf("openService"), Changed(good, "\t</service>\n", ""));
    Write(PathOf("Partial"), Changed(Changed(good, "Recorder<", "Partial<"), "\t</service>\n",
                                     "\t</service><service><name></name><description/></service>"));
    Write(PathOf("Silent"), Changed(Changed(good, "Recorder<", "Silent<"), "Recording schedule", ""));
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), 0);
    EXPECT_EQ(Files(), (Set{"Good.xml", "Silent.xml"}));
    std::vector<KelServiceInfo> found;
    registry.GetServiceInfo("Schedule", "Partial", found, nullptr);
    registry.GetServiceInfo("Schedule", "Silent", found, nullptr);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].description, "");
}

TEST_F(SatelliteFiles, OfTheSameSatelliteAreLeftWithTheHighestIdAndThenTheOwnName) {
    Registry before;
    Register(before, "Good");
    Write(PathOf("RECORDER"), Changed(recorderFile, "Recorder<", "RECORDER<"));
    Write(PathOf("recorder"), Changed(recorderFile, "<id>3", "<id>2"));
    Write(PathOf("Another"), Changed(Changed(recorderFile, "Recorder<", "Good<"), "<id>3", "<id>1"));
    Registry registry;
    EXPECT_EQ(registry.LoadAllSatFiles(), 0);
    EXPECT_EQ(IdOf(registry, "Recorder"), 3);
    EXPECT_EQ(Files(), (Set{"Good.xml", "RECORDER.xml"}));
    EXPECT_EQ(IdAfterRestart("Recorder"), 3);
}

TEST_F(SatelliteFiles, StoredUnderAnotherNameGoWithTheirSatelliteOnceItHasAFileOfItsOwn) {
    {
        Registry registry;
        Register(registry, "Foo");
        Register(registry, "Bar");
    }
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

TEST_F(SatelliteFiles, NeedANameThatAFileCanHave) {
    Registry registry;
    const std::string longest(251, 'n');
    for (const CStdStr& name : {CStdStr("../out"), CStdStr("nul\0nul", 7), CStdStr(longest + "n")}) {
        const int satId = Register(registry, name);
        EXPECT_EQ(IdOf(registry, name), satId);
        EXPECT_EQ(Files(), Set{});
        EXPECT_EQ(LastIdOnDisk(), satId);
        registry.RemoveSatellite(name, satId);
    }
    for (const std::string& name : {std::string("."), std::string(".."), longest}) Register(registry, name);
    EXPECT_EQ(Files(), (Set{"..xml", "...xml", longest + ".xml"}));
    EXPECT_EQ(IdAfterRestart(".."), 5);
}

TEST_F(SatelliteFiles, NameTheHighestIdWhateverTheOrderOfTheWriters) {
    constexpr int threadCount = 8;
    constexpr int each = 50;
    Registry registry;
    std::atomic<int> behind{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < each; ++i) {
                const int satId = Register(registry, CStdStr(std::to_string(thread * each + i)));
                if (LastIdOnDisk() < satId) ++behind;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(behind, 0);
    EXPECT_EQ(LastIdOnDisk(), threadCount * each);
    EXPECT_EQ(Files().size(), static_cast<size_t>(threadCount * each));
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

TEST_F(SatelliteFiles, AreNotWrittenWhileTheIdCounterCannotBe) {
    Registry registry;
    Register(registry, "Foo");
    fs::remove(RegistrationPath());
    fs::create_directory(RegistrationPath());  // nothing can be put in its place
    Register(registry, "Bar");
    EXPECT_EQ(Files(), Set{"Foo.xml"});
    fs::remove(RegistrationPath());
    registry.SerializeSatellite("Bar");
    EXPECT_EQ(Files(), (Set{"Bar.xml", "Foo.xml"}));
    EXPECT_EQ(LastIdOnDisk(), 2);
}

}  // namespace
