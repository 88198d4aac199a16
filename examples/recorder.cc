// The smallest satellite that publishes: its method "Schedule" takes the title of a programme and answers with the
// number of the recording.
//
//     recorder [DIRECTORY]     DIRECTORY is host[:port], or "auto" to have it found on the network;
//                            127.0.0.1 when left out
#include <kel/KelSatellite.h>
#include <kel/VUtil.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>

class Recorder : public KelSatellite {
public:
    ~Recorder() override { Disconnect(); }

    void CreateServices() override {
        AddService("Schedule", "Recording schedule",
                   new KelSatelliteDelegateMemberEx<Recorder>(this, &Recorder::Schedule));
    }

private:
    // Runs on the library's threads, for several callers at once.
    int Schedule(int, const char* caller, const tagVARIANT& in, tagVARIANT* out) {
        const CStdStr title = VUtil::GetStringElement(in, 0);
        const int number = ++recordings_;
        std::printf("recorder: %s asks for \"%s\": recording %d\n", caller, title.c_str(), number);
        *out = VUtil::MakeList(0, number).release();
        return 0;
    }

    std::atomic<int> recordings_{0};
};

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        std::puts("usage: recorder [DIRECTORY]   (host[:port] of the directory, or auto; 127.0.0.1 when left out)");
        return std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // Blocked before the library starts its threads, which inherit it: the signals wait for sigwait.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    Recorder recorder;
    try {
        if (const int code = recorder.Connect(argc > 1 ? argv[1] : "127.0.0.1", "Recorder")) {
            std::fprintf(stderr, "recorder: cannot register: %s: %s\n", KelResultText(code).c_str(),
                         recorder.LastProblem().c_str());
            return 1;
        }
    } catch (const KelException& failure) {
        std::fprintf(stderr, "recorder: %s\n", failure.GetMessage());
        return 1;
    }
    std::printf("recorder: registered; publishes \"Schedule\" on port %d\n", recorder.getSatellitePort());

    int signal = 0;
    sigwait(&stop, &signal);
    std::puts("recorder: leaving the directory");
    return 0;
}
