#include "registry/ServiceAvailability.h"

#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

class AListenerList : public testing::Test, public SatelliteChannel, public ServiceProviders {
protected:
    AListenerList() { std::filesystem::create_directories(folder()); }

    int PingSat(const CStdStr&, const CStdStr&, unsigned short, int, int*) override { return 0; }
    void OnServiceAvailabilityChanged(const CStdStr& service, const CStdStr& satellite, const CStdStr& listener,
                                      int status) override {
        told_.push_back(service + "," + satellite + "," + listener + "," + std::to_string(status));
    }
    bool AwaitListener(const CStdStr&) override { return ++awaited_ <= 4; }
    int GetServices(const CStdStr&, std::list<CStdStr>& satellites) override {
        for (int i = 0; i < many_; ++i) satellites.push_back("Sat" + std::to_string(10000 + i));
        if (many_ > 0) return 0;

        satellites = {"Alpha", "beta"};
        return result_;
    }

    std::string folder() const { return root_.dataFolder() + "/Satellites/Registration"; }
    std::string path() const { return folder() + "/ServiceListeners.xml"; }
    std::string Text() const { return Text(path()); }
    static std::string Text(const std::string& file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }
    void Write(const std::string& text) const { std::ofstream(path()) << text; }
    static std::string Entry(const std::string& service, const std::string& satellite) {
        return "\t<serviceListener>\n\t\t<service>" + service + "</service>\n\t\t<satellite>" + satellite +
               "</satellite>\n\t</serviceListener>\n";
    }
    static std::string File(const std::string& entries) {
        return "<?xml version='1.0'?>\n<serviceListeners>\n" + entries + "</serviceListeners>\n";
    }

    TempRoot root_;
    std::vector<std::string> told_;
    int result_ = 0;
    int many_ = 0;
    int awaited_ = 0;
    ServiceAvailability list_{this, this};
};

TEST_F(AListenerList, KeepsEachPairOnceInTheOrderOfTheLastAddition) {
    list_.Add("Schedule", "Remote");
    list_.Add("Schedule", "Player");
    list_.Add("schedule", "Remote");
    list_.Add("Schedule", "Remote");
    EXPECT_EQ(Text(), File(Entry("Schedule", "Player") + Entry("schedule", "Remote") + Entry("Schedule", "Remote")));
    EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms{0775});
    list_.Notify("Schedule", "Recorder", 1);
    EXPECT_EQ(told_, (std::vector<std::string>{"Schedule,Recorder,Player,1", "Schedule,Recorder,Remote,1"}));
}

TEST_F(AListenerList, ForgetsOnePairOrAllOfASatelliteAndAlwaysWritesTheFile) {
    list_.Remove("Schedule", "Other");
    EXPECT_EQ(Text(), File(""));
    std::filesystem::remove(path());
    list_.Remove("Other");
    EXPECT_EQ(Text(), File(""));
    for (const char* service : {"A", "B"}) {
        for (const char* satellite : {"Remote", "remote"}) list_.Add(service, satellite);
    }
    list_.Remove("A", "remote");
    list_.Remove("Remote");
    EXPECT_EQ(Text(), File(Entry("B", "remote")));
}

TEST_F(AListenerList, TellsANewListenerOfEveryProviderInTheGivenOrder) {
    list_.Notify("Schedule", "Player");
    EXPECT_EQ(told_, (std::vector<std::string>{"Schedule,Alpha,Player,1", "Schedule,beta,Player,1"}));
    result_ = 1;
    list_.Notify("Schedule", "Player");
    EXPECT_EQ(told_.size(), 2u);
    told_.clear();
    awaited_ = 0;
    many_ = 1200;  // three parts, and a wait before each
    list_.Notify("Schedule", "Player");
    ASSERT_EQ(told_.size(), 1200u);
    EXPECT_EQ(told_.back(), "Schedule,Sat11199,Player,1");
    EXPECT_EQ(awaited_, 3);
    EXPECT_FALSE(list_.Notify("Schedule", "Player")) << "it no longer takes anything in";
    EXPECT_EQ(told_.size(), 1600u);
}

TEST_F(AListenerList, LoadsWhatItSavedAndWhatComesBeforeABrokenEntry) {
    EXPECT_EQ(list_.LoadList(), 0);
    EXPECT_FALSE(std::filesystem::exists(path()));
    Write(File(""));
    EXPECT_EQ(list_.LoadList(), 0);

    const std::string good = Entry("Schedule", "Remote") + Entry("A & B <", "Player");
    struct Case {
        std::string text;
        int result;
    };
    for (const Case& c :
         {Case{File(good), 0}, Case{"junk" + good + "junk", 0}, Case{File(good + Entry("", "X") + Entry("Y", "Z")), 11},
          Case{File(good + "<serviceListener><service>A</service></serviceListener>"), 11},
          Case{File(good + Entry("A</service><service>B", "X")), 11}}) {
        SCOPED_TRACE(c.text);
        ServiceAvailability fresh(this, this);
        Write(c.text);
        EXPECT_EQ(fresh.LoadList(), c.result);
        EXPECT_EQ(Text(), File(good));
    }
    for (const std::string& broken : {File(good + "<serviceListener>"), File(Entry("", "X") + good)}) {
        ServiceAvailability fresh(this, this);
        Write(broken);
        EXPECT_EQ(fresh.LoadList(), 11);
        fresh.Remove("Player");
        EXPECT_EQ(Text(), broken) << "nothing was added, so nothing is written";
        fresh.Add("Schedule", "Player");
        EXPECT_EQ(Text(), File(Entry("Schedule", "Player")));
        EXPECT_EQ(Text(path() + ".damaged"), broken);
    }
}

TEST_F(AListenerList, TakesNoMoreThanItKeepsForOneSatellite) {
    std::vector<CStdStr> many;
    for (size_t i = 0; i <= ServiceAvailability::maxServicesOfOne; ++i) many.emplace_back(std::to_string(i));
    using Added = ServiceAvailability::Added;
    EXPECT_EQ(list_.Add(many, "Player"), Added::tooMany);
    many.pop_back();
    EXPECT_EQ(list_.Add(many, "Player"), Added::all);
    EXPECT_EQ(list_.Add(many, "Player"), Added::all) << "the same once more";
    const std::string text = Text();
    EXPECT_EQ(list_.Add("one more", "Player"), Added::tooMany);
    EXPECT_EQ(Text(), text);
    EXPECT_EQ(list_.Add("one more", "Remote"), Added::all);
}

}  // namespace
