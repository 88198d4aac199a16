// A satellite for system tests: it does what the lines on its standard input say and prints what it hears, a line each.
//
//     satellite HOST[:PORT] NAME [SERVICE...]
//
//     publish SERVICE, withdraw SERVICE, listen SERVICE, ignore SERVICE, back SECONDS   answered by "done CODE"
//     event SERVICE SATELLITE STATUS, standing SATID STATUS                             printed as they come
//
// It prints "ready SATID" when it is connected, and leaves the directory and ends at the end of its input.
#include "rpc/satellite/KelSatellite.h"
#include "rpc/values/VUtil.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Whole lines, whichever threads print them.
template <typename... Parts>
void Print(const Parts&... parts) {
    std::ostringstream line;
    ((line << parts), ...) << '\n';
    std::cout.write(line.str().data(), static_cast<std::streamsize>(line.str().size())).flush();
}

int DoNothing(const char*, const tagVARIANT&, tagVARIANT*) { return 0; }

class TestSatellite : public KelSatellite {
public:
    explicit TestSatellite(std::vector<std::string> services) : services_(std::move(services)) {}
    ~TestSatellite() override { Disconnect(); }

    int Do(const std::string& command, const std::string& what) {
        if (command == "publish") return AddService(what.c_str(), "", &DoNothing);
        if (command == "withdraw") return RemoveService(what.c_str());
        if (command == "listen") return AddServiceAvailabilityListener(what.c_str());
        if (command == "ignore") return RemoveServiceAvailabilityListener(what.c_str());
        if (command != "back") return -1;
        ScopedVariant out;
        return Request("MainRegister", "SetBeRightBackTimer", MakeInt(std::atoi(what.c_str())), &out, KELFLAG_WAIT,
                       nullptr);
    }

protected:
    void CreateServices() override {
        for (const std::string& service : services_) AddService(service.c_str(), "", &DoNothing);
    }
    void OnServiceAvailabilityChanged(const char* service, const char* satellite, int status) override {
        Print("event ", service, " ", satellite, " ", status);
    }
    void OnStatusChange(int satId, KELSTATUS status) override { Print("standing ", satId, " ", status); }

private:
    const std::vector<std::string> services_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return EXIT_FAILURE;
    TestSatellite satellite(std::vector<std::string>(argv + 3, argv + argc));
    if (const int code = satellite.Connect(argv[1], argv[2])) {
        std::cerr << KelResultText(code) << std::endl;
        return EXIT_FAILURE;
    }
    int satId = 0;
    satellite.GetSatelliteId(&satId);
    Print("ready ", satId);
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        std::string what;
        words >> command >> what;
        try {
            Print("done ", satellite.Do(command, what));
        } catch (const KelException& error) {
            Print("done ", error.GetCode());
        }
    }
    return EXIT_SUCCESS;
}
