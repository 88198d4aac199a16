#include "directory/KelDirectory.h"

#include "DirectoryFixture.h"

#include <climits>
#include <fstream>
#include <future>
#include <sstream>

namespace {

constexpr char here[] = "127.0.0.1";

class Requests : public DirectoryFixture {
protected:
    Requests() { Init(); }

    int Remove(const tagVARIANT& record) { return directory_->SatRemove(&record, here, "Tester"); }

    // The answer to "GetServiceReg", which must succeed.
    ScopedVariant Find(const char* destination, const char* service) {
        const ScopedVariant in = Texts({destination, service});
        ScopedVariant out;
        EXPECT_EQ(directory_->SatGetService(&in, &out, here, "Tester"), 0);
        return out;
    }

    // Only the satellites' names of that answer.
    std::vector<CStdStr> Found(const char* destination, const char* service) {
        const ScopedVariant out = Find(destination, service);
        std::vector<CStdStr> names;
        for (int i = 0; i < VUtil::GetArrayLength(out); ++i) {
            ScopedVariant description;
            VUtil::GetElement(out, i, description);
            names.push_back(VUtil::GetStringElement(description, 2));
        }
        return names;
    }
};

using Names = std::vector<CStdStr>;

TEST_F(Requests, KeepTheRecordOfASatelliteThatComesBackWithItsId) {
    int first = 0;
    int again = 0;
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_, {{"Schedule", ""}}), &first), 0);
    EXPECT_EQ(Register(RecordOf("recorder", first, port_, {{"Tuner", ""}}), &again), 0);
    EXPECT_EQ(again, first);
    EXPECT_EQ(Found("Recorder", "Schedule"), Names{"Recorder"});
    EXPECT_EQ(Found("Recorder", "Tuner"), Names{"Recorder"});
}

TEST_F(Requests, LetANameGoFromADeadHolderButNotFromALivingOne) {
    int first = 0;
    int second = 0;
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_, {{"Schedule", ""}}), &first), 0);
    EXPECT_EQ(Register(RecordOf("Recorder", first + 5, port_), &second), 0);
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(Found("all", "Schedule"), Names{});
    const int own = IdOf("MainRegister");
    EXPECT_EQ(Register(RecordOf("mainregister", 0, port_)), 0x40010);
    EXPECT_EQ(IdOf("MainRegister"), own);
}

TEST_F(Requests, RefuseANameThatIsBeingRegistered) {
    auto holder = std::make_unique<ListeningPort>();
    EXPECT_EQ(Register(RecordOf("Recorder", 0, holder->port())), 0);
    auto first = std::async(std::launch::async, [&] { return Register(RecordOf("Recorder", 0, port_)); });
    const int ping = accept(holder->socket(), nullptr, nullptr);  // the first asks whether the holder lives
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_)), 0x40010);
    EXPECT_EQ(Register(RecordOf("Player", 0, port_)), 0);
    close(ping);
    holder.reset();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(Register(RecordOf("Recorder", IdOf("Recorder"), port_)), 0);
}

TEST_F(Requests, RegisterNothingFromARecordThatCannotBeRead) {
    const auto broken = [&](int index, const tagVARIANT& value) {
        ScopedVariant record = RecordOf("Recorder", 0, port_, {{"Schedule", ""}});
        VUtil::PutElement(record, index, value);
        return record;
    };
    const ScopedVariant two = MakeInt(2);
    const ScopedVariant text = MakeString("text");
    const ScopedVariant numbers = [] {
        ScopedVariant entry = Array(2);
        VUtil::PutElement(entry, 0, 1);
        VUtil::PutElement(entry, 1, 2);
        ScopedVariant entries = Array(1);
        VUtil::PutElement(entries, 0, entry);
        return entries;
    }();
    std::vector<ScopedVariant> bad;
    bad.emplace_back();
    bad.push_back(MakeString("Recorder"));
    bad.push_back(Array(0));
    bad.push_back(Texts({"Recorder", "studio"}));
    for (const int index : {0, 1, 2, 6}) bad.push_back(broken(index, two));
    for (const int index : {2, 3, 4, 5, 6}) bad.push_back(broken(index, text));
    bad.push_back(broken(5, two));  // more entries than there are
    bad.push_back(broken(5, MakeInt(INT_MAX)));
    bad.push_back(broken(6, numbers));
    bad.push_back(broken(6, Array(1)));
    bad.push_back(broken(6, Texts({"Schedule"})));
    for (const ScopedVariant& record : bad) {
        CStdStr shown;
        VUtil::VariantToFriendlyString(&record, shown);
        ScopedVariant out;
        EXPECT_THROW(Register(record), KelInvalidParameterException) << shown;
    }
    EXPECT_EQ(IdOf("Recorder"), -1);
    EXPECT_EQ(Found("all", "Schedule"), Names{});
    EXPECT_EQ(Register(broken(5, MakeInt(INT_MIN))), 0) << "or the name is still taken for being registered";
    EXPECT_EQ(Found("all", "Schedule"), Names{});
}

TEST_F(Requests, WithdrawOnlyTheServicesThatAreListed) {
    int satId = 0;
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_, {{"Schedule", ""}, {"Tuner", ""}, {"Disk", ""}}), &satId), 0);
    const auto withdraw = [&](const tagVARIANT& record, int* remaining) {
        ScopedVariant out;
        const int rc = directory_->SatUnRegister(&record, &out, here, "Tester");
        *remaining = rc == 0 && out.vt == VT_I4 ? out.lVal : -1;
        return rc;
    };
    int remaining = 0;
    EXPECT_EQ(withdraw(RecordOf("Recorder", satId + 1, port_, {{"Tuner", ""}}), &remaining), 0x4000a);
    EXPECT_EQ(withdraw(RecordOf("Player", satId, port_, {{"Tuner", ""}}), &remaining), 0x4000a);
    ScopedVariant half = RecordOf("Recorder", satId, port_, {{"Tuner", ""}, {"Disk", ""}});
    VUtil::PutElement(half, 5, 3);
    EXPECT_THROW(withdraw(half, &remaining), KelInvalidParameterException);
    EXPECT_EQ(Found("all", "Tuner"), Names{"Recorder"});
    EXPECT_EQ(withdraw(RecordOf("recorder", satId, port_, {{"tuner", ""}, {"Disk", ""}, {"None", ""}}), &remaining), 0);
    EXPECT_EQ(remaining, 1);
    EXPECT_EQ(withdraw(RecordOf("Recorder", satId, port_), &remaining), 0);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(Found("all", "Schedule"), Names{"Recorder"});
    std::ostringstream file;
    file << std::ifstream(root_.dataFolder() + "/Satellites/Recorder.xml").rdbuf();
    EXPECT_EQ(file.str().find("Tuner"), std::string::npos);
    EXPECT_NE(file.str().find("<name>Schedule</name>"), std::string::npos);
}

TEST_F(Requests, RemoveASatelliteByNameAndId) {
    int satId = 0;
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_, {{"Schedule", ""}}), &satId), 0);
    EXPECT_EQ(Remove(RecordOf("Recorder", satId + 1, port_)), 0x4000a);
    EXPECT_EQ(Remove(RecordOf("Player", satId, port_)), 0x4000a);
    EXPECT_EQ(IdOf("Recorder"), satId);
    EXPECT_EQ(Remove(RecordOf("RECORDER", satId, port_)), 0);
    EXPECT_EQ(IdOf("Recorder"), -1);
    EXPECT_EQ(Found("any", "Schedule"), Names{});
}

TEST_F(Requests, DescribeOneProviderOrAllOrThatOfAName) {
    for (const char* name : {"Beta", "alpha", "Gamma"}) {
        EXPECT_EQ(Register(RecordOf(name, 0, port_, {{"Schedule", "Recording schedule"}})), 0);
    }
    EXPECT_EQ(Found("ANY", "schedule"), Names{"Gamma"});
    EXPECT_EQ(Found("", "Schedule"), Names{"Gamma"});
    EXPECT_EQ(Found("All", "Schedule"), (Names{"alpha", "Beta", "Gamma"}));
    EXPECT_EQ(Found("ALPHA", "Schedule"), Names{"alpha"});
    EXPECT_EQ(Found("Delta", "Schedule"), Names{});
    EXPECT_EQ(Providers("Schedule"), (std::list<CStdStr>{"alpha", "Beta", "Gamma"}));

    const ScopedVariant out = Find("beta", "Schedule");
    ScopedVariant only;
    VUtil::GetElement(out, 0, only);
    VUtil::CheckArrayType(only, VT_VARIANT, 7);
    EXPECT_EQ(VUtil::GetStringElement(only, 0), "Schedule");
    EXPECT_EQ(VUtil::GetStringElement(only, 1), "Recording schedule");
    EXPECT_EQ(VUtil::GetStringElement(only, 2), "Beta");
    EXPECT_EQ(VUtil::GetStringElement(only, 3), here);
    EXPECT_EQ(VUtil::GetUnsignedShortElement(only, 4), port_);
    EXPECT_EQ(VUtil::GetStringElement(only, 5), "studio");
    EXPECT_EQ(VUtil::GetIntElement(only, 6), 2);
}

TEST_F(Requests, TellAddressAndIdOfASatellite) {
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_)), 0);
    ScopedVariant out;
    EXPECT_EQ(directory_->SatGetHostName(MakeString("recorder"), &out, here), 0);
    EXPECT_EQ(VUtil::GetStringElement(out, 0), here);
    EXPECT_EQ(VUtil::GetIntElement(out, 1), port_);
    EXPECT_EQ(directory_->SatGetHostName(MakeString("Player"), &out, here), 0x4000a);
    EXPECT_EQ(directory_->SatGetHostName(MakeInt(1), &out, here), 0x40001);
    EXPECT_EQ(IdOf("RECORDER"), 2);
    EXPECT_EQ(IdOf("Player"), -1);
}

TEST_F(Requests, AnswerABadParameterWithACode) {
    const ScopedVariant number = MakeInt(30);
    const ScopedVariant text = MakeString("30");
    const ScopedVariant empty;
    const ScopedVariant mixed = [] {
        ScopedVariant array = Texts({"Schedule", ""});
        VUtil::PutElement(array, 1, 7);
        return array;
    }();
    ScopedVariant out;
    for (const ScopedVariant* in : {&number, &text, &empty, &mixed}) {
        EXPECT_EQ(directory_->SatGetService(in, &out, here, ""), 0x40001);
        EXPECT_EQ(directory_->AddServiceListener(in, &out, ""), 0x40001);
        EXPECT_EQ(directory_->RemoveServiceListener(in, &out, ""), 0x40001);
    }
    EXPECT_EQ(directory_->SatGetId(&number, &out, here, ""), 0x40002);
    EXPECT_EQ(directory_->SatGetId(&mixed, &out, here, ""), 0x40002);
    EXPECT_EQ(directory_->SatSetBeRightBack(&text, &out, here, "MainRegister"), 1);
    EXPECT_EQ(directory_->SatSetBeRightBack(&number, &out, here, "Nobody"), 0x40002);
    EXPECT_EQ(directory_->SatSetBeRightBack(&number, &out, here, "MainRegister"), 0);
    EXPECT_EQ(out.vt, VT_I4);
    EXPECT_EQ(out.lVal, 0);

    EXPECT_EQ(directory_->SatRegister(nullptr, &out, here, ""), 0x4000a);
    EXPECT_EQ(directory_->SatUnRegister(nullptr, &out, here, ""), 0x4000a);
    EXPECT_EQ(directory_->SatRemove(nullptr, here, ""), 0x4000a);
    EXPECT_EQ(directory_->SatGetService(nullptr, &out, here, ""), 0x4000a);
    EXPECT_EQ(directory_->SatGetId(nullptr, &out, here, ""), 0x4000a);
    EXPECT_EQ(directory_->SatSetBeRightBack(nullptr, &out, here, ""), 0x4000a);
    directory_->close();
    EXPECT_EQ(Register(RecordOf("Recorder", 0, port_)), -1);
}

}  // namespace
