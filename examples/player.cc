// The smallest satellite that calls: it asks the directory who serves "Schedule", calls that satellite, and does so
// again every three seconds.
//
//     player [DIRECTORY]     DIRECTORY is host[:port], or "auto" to have it found on the network;
//                          127.0.0.1 when left out
#include <kel/KelSatellite.h>
#include <kel/VUtil.h>

#include <csignal>
#include <cstdio>
#include <cstring>

// Throws KelException when a method is not published or fails.
static void ScheduleSomewhere(KelSatellite& player, const char* title) {
    const ScopedVariant question = VUtil::MakeList("any", "Schedule");
    ScopedVariant providers;
    int code = player.Request("MainRegister", "GetServiceReg", question, &providers, KELFLAG_WAIT, nullptr);
    if (code != KEL_OK || VUtil::GetArrayLength(providers) == 0) {
        std::printf("player: %s\n", code ? KelResultText(code).c_str() : "nobody serves \"Schedule\"");
        return;
    }
    ScopedVariant provider, answer;
    VUtil::GetElement(providers, 0, provider);
    const CStdStr satellite = VUtil::GetStringElement(provider, 2);
    code = player.Request(satellite.c_str(), "Schedule", VUtil::MakeList(title), &answer, KELFLAG_WAIT, nullptr);
    if (code != KEL_OK) {
        std::printf("player: %s: %s\n", satellite.c_str(), KelResultText(code).c_str());
        return;
    }
    std::printf("player: %s serves \"Schedule\": \"%s\" is its recording %d\n", satellite.c_str(), title,
                VUtil::GetIntElement(answer, 1));
}

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        std::puts("usage: player [DIRECTORY]   (host[:port] of the directory, or auto; 127.0.0.1 when left out)");
        return std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // Blocked before the library starts its threads, which inherit it: the signals wait for sigtimedwait.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    KelSatellite player;
    try {
        if (const int code = player.ConnectUser(argc > 1 ? argv[1] : "127.0.0.1", "Player")) {
            std::fprintf(stderr, "player: cannot reach the directory: %s\n", player.LastProblem().c_str());
            return 1;
        }
    } catch (const KelException& failure) {
        std::fprintf(stderr, "player: %s\n", failure.GetMessage());
        return 1;
    }
    const timespec pause{3, 0};
    do {
        try {
            ScheduleSomewhere(player, "Evening News");
        } catch (const KelException& failure) {
            std::printf("player: %s\n", failure.GetMessage());
        }
    } while (sigtimedwait(&stop, nullptr, &pause) < 0);
    std::puts("player: done");
    return 0;
}
