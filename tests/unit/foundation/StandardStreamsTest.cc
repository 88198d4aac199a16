#include "foundation/StandardStreams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>

namespace {

// In place of standard output, with an other end that is read only when a test does.
class Output {
public:
    Output(int readEnd, int writeEnd) : readEnd_(readEnd), kept_(dup(STDOUT_FILENO)) {
        dup2(writeEnd, STDOUT_FILENO);
        close(writeEnd);
    }
    ~Output() {
        dup2(kept_, STDOUT_FILENO);
        close(kept_);
        close(readEnd_);
    }

    // Waits for something to read.
    std::string read() const {
        char part[4096];
        const ssize_t count = ::read(readEnd_, part, sizeof part);
        return {part, static_cast<size_t>(std::max(count, ssize_t{0}))};
    }

private:
    const int readEnd_;
    const int kept_;
};

Output makePipe() {
    int ends[2] = {};
    EXPECT_EQ(pipe(ends), 0);
    return {ends[0], ends[1]};
}

Output makeSocket() {
    int ends[2] = {};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    return {ends[0], ends[1]};
}

Output makeTerminal() {
    int ends[2] = {};
    termios raw{};
    cfmakeraw(&raw);
    EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &raw, nullptr), 0);
    return {ends[0], ends[1]};
}

// While it lives no descriptor can be opened.
class WithoutDescriptors {
public:
    explicit WithoutDescriptors(bool takesEffect) {
        getrlimit(RLIMIT_NOFILE, &kept_);
        rlimit none{STDERR_FILENO + 1, kept_.rlim_max};
        if (takesEffect) setrlimit(RLIMIT_NOFILE, &none);
    }
    ~WithoutDescriptors() { setrlimit(RLIMIT_NOFILE, &kept_); }

private:
    rlimit kept_{};
};

TEST(StandardOutput, HoldsNobodyUpAndTellsHowManyLinesItDidNotTake) {
    Output (*const kinds[])() = {&makePipe, &makeSocket, &makeTerminal};
    for (const auto make : kinds) {
        for (const bool hasDescriptors : {true, false}) {
            const Output output = make();
            std::string text;
            {
                const WithoutDescriptors none(!hasDescriptors);
                const std::string line(6000, 'x');
                for (int i = 0; i < 500; ++i) kel::PrintOut(line + "\n");
            }
            EXPECT_FALSE(fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK) << "others share it";
            // What is left of a line comes with the next.
            while (text.find("last\n") == std::string::npos) {
                kel::PrintOut("last\n");
                text += output.read();
            }
            std::istringstream lines(text);
            long whole = 0;
            long all = 0;
            for (std::string line; std::getline(lines, line) && line != "last";) {
                long more = 1;
                if (line == std::string(6000, 'x')) ++whole;
                else EXPECT_EQ(std::sscanf(line.c_str(), "... %ld lines are missing here: standard", &more), 1) << line;
                all += more;
            }
            EXPECT_GT(whole, 0);
            EXPECT_GE(all, 500);
        }
    }
}

}  // namespace
