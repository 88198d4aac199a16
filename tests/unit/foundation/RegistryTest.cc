#include "foundation/Settings.h"

#include "platform/PreferencesStore.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

using kel::platform::PreferenceValue;
using kel::platform::StorePreference;
using kel::platform::SynchronisePreferences;

namespace {

constexpr char productKey[] = "Software\\Tessaly\\Yar";
constexpr char configKey[] = "Software\\Tessaly\\Yar\\Config";
constexpr char identifier[] = "com.tessaly.yar";

// The settings of a user who has none yet.
class TheSettings : public testing::Test {
protected:
    std::string ListPath() const { return root_.config() + "/" + identifier + ".plist"; }
    void PutList(const std::string& text) { std::ofstream(ListPath()) << text; }

    std::string List() const {
        std::ifstream file(ListPath());
        return {std::istreambuf_iterator<char>(file), {}};
    }

    int ReadInt(const char* name, int missing = -777) {
        int value = missing;
        settings_->ReadSettingImpl(productKey, name, value);
        return value;
    }

    CStdStr ReadText(const CStdStr& key, const char* name) {
        CStdStr value = "(missing)";
        settings_->ReadSettingImpl(key, name, value);
        return value;
    }

    TempRoot root_;
    boost::shared_ptr<CRegistry> settings_ = CRegistry::getInstance();
};

}  // namespace

TEST(AKeyPath, BecomesAPreferencesIdentifier) {
    EXPECT_EQ("com.tessaly.yar", CRegistryImpl::createKey("Software\\Tessaly\\Yar"));
    EXPECT_EQ("com.tessaly.yar.config", CRegistryImpl::createKey("SOFTWARE\\TESSALY\\YAR\\Config"));
    EXPECT_EQ("com.tessaly.yar.a.b.c", CRegistryImpl::createKey("Software\\Tessaly\\Yar\\A\\B\\C"));
    EXPECT_EQ("other.product.x", CRegistryImpl::createKey("Other\\Product\\X"));
    EXPECT_EQ("x.com.tessaly.yarcom.tessaly.yar",
              CRegistryImpl::createKey("X\\Software\\Tessaly\\YarSoftware\\Tessaly\\Yar"));
}

TEST_F(TheSettings, LeaveTheCallersValueWhenOneIsMissing) {
    ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "Other", 1));
    EXPECT_EQ(42, ReadInt("other", 42)) << "value names are case-sensitive";
    EXPECT_EQ("(missing)", ReadText(productKey, "InstallDir"));
}

TEST_F(TheSettings, GiveBackEveryNumberAndText) {
    for (int number : {0, 4, -5, 2147483647, -2147483647 - 1}) {
        ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "Number", number));
        EXPECT_EQ(number, ReadInt("Number"));
    }
    CStdStr everyCharacter;
    for (int c = 1; c < 256; ++c) everyCharacter.push_back(static_cast<char>(c));
    const CStdStr longText(std::string(70000, '\x8a'));
    for (const CStdStr& text : {CStdStr(), CStdStr("  <a> & \"b\" \r\n"), everyCharacter, longText}) {
        ASSERT_TRUE(settings_->WriteSettingImpl(configKey, "Text", text));
        EXPECT_EQ(text, ReadText("SOFTWARE\\TESSALY\\YAR\\CONFIG", "Text"));
    }
}

TEST_F(TheSettings, AreStoredInUnicodeAndReadAsMacRoman) {
    ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "Gr\x9a\xa7\x65", CStdStr("K\x8ase")));
    EXPECT_NE(std::string::npos, List().find("<key>Größe</key>\n\t<string>Käse</string>")) << List();
    ASSERT_TRUE(StorePreference(identifier, "Foreign", std::string("\xe6\x97\xa5")));
    EXPECT_EQ("", ReadText(productKey, "Foreign")) << "no Mac Roman text for it";
}

TEST_F(TheSettings, ReadAnyStoredTypeAsANumber) {
    const std::pair<PreferenceValue, int> rows[] = {
        {std::string("3"), 3}, {true, 1}, {2.9, 2}, {1e300, 2147483647}, {int64_t{0x100000007}, 7}};
    for (const auto& [stored, number] : rows) {
        ASSERT_TRUE(StorePreference(identifier, "Number", stored));
        EXPECT_EQ(number, ReadInt("Number"));
    }
}

TEST_F(TheSettings, LookABooleanUpUnderItsLiteralKey) {
    bool flag = false;
    ASSERT_TRUE(StorePreference(identifier, "Flag", true));
    EXPECT_FALSE(settings_->ReadSettingImpl(productKey, "Flag", flag));
    EXPECT_TRUE(settings_->ReadSettingImpl(identifier, "Flag", flag));
    EXPECT_TRUE(flag);
    ASSERT_TRUE(StorePreference(productKey, "Flag", false));
    EXPECT_TRUE(settings_->ReadSettingImpl(productKey, "Flag", flag));
    EXPECT_FALSE(flag);
}

TEST_F(TheSettings, AreReadInBulkWithoutBooleansAndOtherTypesAndSayWhenThereAreNone) {
    std::map<CStdStr, CStdStr> values = {{"n", "old"}, {"b", "kept"}};
    const auto printed = [&] {
        testing::internal::CaptureStdout();
        settings_->ReadAllSettingsImpl(productKey, values);
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ("no keys for com.tessaly.yar\n", printed());
    PutList("not a list");
    EXPECT_EQ("synchronization failed for com.tessaly.yar\n", printed());
    PutList("<plist version=\"1.0\"><dict/></plist>");
    EXPECT_EQ("", printed());
    EXPECT_EQ(2U, values.size());
    PutList(
        "<plist version=\"1.0\"><dict><key>n</key><integer>-7</integer><key>t</key><string>text</string>"
        "<key>b</key><true/><key>d</key><date>2001-01-01T00:00:00Z</date><key>r</key><real>2.5</real>"
        "<key>a</key><array><integer>1</integer></array></dict></plist>");
    EXPECT_EQ("", printed());
    const std::map<CStdStr, CStdStr> expected = {{"b", "kept"}, {"n", "-7"}, {"r", "2"}, {"t", "text"}};
    EXPECT_EQ(expected, values);
}

TEST_F(TheSettings, AreMadeForTheUserOnlyAndKeepTheOtherValuesAndTheModeOfTheList) {
    ASSERT_TRUE(std::filesystem::remove(root_.config()));
    ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "LogLevel", 3));
    EXPECT_EQ(std::filesystem::perms(0700), std::filesystem::status(root_.config()).permissions());
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(ListPath()).permissions());
    PutList(
        "<plist version=\"1.0\"><dict><key>d</key><date>2001-01-01T00:00:00Z</date>"
        "<key>a</key><array><dict><key>x</key><data>YWJj</data></dict></array></dict></plist>");
    std::filesystem::permissions(ListPath(), std::filesystem::perms(0640));
    ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "LogLevel", 4));
    EXPECT_EQ(std::filesystem::perms(0640), std::filesystem::status(ListPath()).permissions());
    EXPECT_NE(std::string::npos, List().find("2001-01-01T00:00:00Z"));
    EXPECT_NE(std::string::npos, List().find("YWJj"));
    EXPECT_EQ(4, ReadInt("LogLevel"));
}

TEST_F(TheSettings, NeverLeaveTheirFolder) {
    for (const char* key : {"../outside", "/tmp/outside", "a/b", ""}) {
        EXPECT_FALSE(settings_->WriteSettingImpl(key, "Name", 1)) << key;
        EXPECT_FALSE(SynchronisePreferences(key)) << key;
    }
    EXPECT_FALSE(settings_->WriteSettingImpl(CStdStr("a\0b", 3), "Name", 1));
    EXPECT_FALSE(settings_->WriteSettingImpl(productKey, CStdStr("a\0b", 3), 1));
    EXPECT_FALSE(std::filesystem::exists(root_.path() + "/outside.plist"));
    EXPECT_TRUE(std::filesystem::is_empty(root_.config()));
}

TEST_F(TheSettings, FailInABrokenListAndKeepIt) {
    ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "LogLevel", 4));
    const std::string whole = List();
    for (const std::string& broken :
         {std::string("garbage"), whole.substr(0, whole.size() / 2), whole.substr(0, whole.rfind("</plist>")),
          std::string("<plist version=\"1.0\"><array/></plist>")}) {
        PutList(broken);
        int number = 42;
        EXPECT_FALSE(settings_->ReadSettingImpl(productKey, "LogLevel", number));
        EXPECT_FALSE(settings_->WriteSettingImpl(productKey, "LogLevel", 3));
        EXPECT_EQ(broken, List());
    }
}

TEST_F(TheSettings, LoseNothingWhenTwoProcessesWrite) {
    const auto writeAll = [this](const std::string& name, int count) {
        int failures = 0;
        for (int i = 0; i < count; ++i)
            failures += !settings_->WriteSettingImpl(productKey, name + std::to_string(i), i);
        return failures;
    };
    int status = -1;
    const pid_t child = fork();
    if (child == 0) _exit(writeAll("child", 200));
    EXPECT_EQ(0, writeAll("parent", 200));
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    std::map<CStdStr, CStdStr> values;
    settings_->ReadAllSettingsImpl(productKey, values);
    EXPECT_EQ(400u, values.size());
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(std::to_string(i), values["child" + std::to_string(i)]);
        EXPECT_EQ(std::to_string(i), values["parent" + std::to_string(i)]);
    }
    const pid_t later = fork();
    if (later == 0) _exit(writeAll("later", 1));
    ASSERT_EQ(later, waitpid(later, &status, 0));
    EXPECT_EQ(0, ReadInt("later0")) << "what another process wrote is seen";
}

TEST_F(TheSettings, AreAlwaysWholeToAReaderAndLoseNothingToAnotherThread) {
    ASSERT_TRUE(settings_->WriteSettingImpl(productKey, "Steady", CStdStr(std::string(20000, 'x'))));
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::thread reader([&] {
        while (!done) failures += ReadText(productKey, "Steady").size() != 20000;
    });
    const auto write = [&](const std::string& name) {
        for (int i = 0; i < 50; ++i) failures += !settings_->WriteSettingImpl(productKey, name + std::to_string(i), i);
    };
    std::thread other(write, "other");
    write("mine");
    other.join();
    done = true;
    reader.join();
    EXPECT_EQ(0, failures);
    EXPECT_EQ(101u, SynchronisePreferences(identifier)->values.size());
}
