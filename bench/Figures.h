// Figures and how they are written in the table.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kel::bench {

// One line of the table, in words.
struct Row {
    std::string what;
    std::string measured;
    std::string baseline;
    std::string ratio;
    std::string goal;  // may be empty, and then nothing is reached or missed
    bool reached;
    std::string cpuACall = {};  // processor time, of the server and of the baseline's
};

// The two sides of a comparison, round by round.
struct Comparison {
    std::vector<double> measured;
    std::vector<double> baseline;

    std::vector<double> Ratios() const;
};

// Takes the processor time that a server uses for a call, over any number of runs.
class CpuMeter {
public:
    // `cpuSeconds` tells what the server has used so far.
    explicit CpuMeter(std::function<double()> cpuSeconds) : cpuSeconds_(std::move(cpuSeconds)) {}

    // Runs `calls`, which returns how many of them it made a second; returns the same.
    double Run(const std::function<double()>& calls);

    double SecondsACall() const { return used_ / calls_; }

private:
    std::function<double()> cpuSeconds_;
    double used_ = 0;
    double calls_ = 0;
};

double Median(std::vector<double> values);

std::string Text(double number, int decimals);
std::string Grouped(double number);                     // "12,345"
std::string Rate(double perSecond);                     // "12,345 /s"
std::string Seconds(double seconds);                    // "0.123 s"
std::string Microseconds(double seconds);               // "12.3 us"
std::string Mebibytes(double bytes);                    // "1.2 MiB"
std::string Spread(const std::vector<double>& ratios);  // "0.81 (0.79..0.84)"

// Rates, of which the directory's is to be at least `goal` of the baseline's.
Row RowOfRates(std::string what, const Comparison& rates, double goal);

// The same, with the processor time that both servers used for a call.
Row RowOfRates(std::string what, const Comparison& rates, double goal, const CpuMeter& measured,
               const CpuMeter& baseline);

// Seconds, of which the directory's are to be at most `goal` times the baseline's; 0 for no goal.
Row RowOfTimes(std::string what, const Comparison& times, double goal);

// Says on the standard error output what is being measured.
void Announce(const std::string& what);

}  // namespace kel::bench
