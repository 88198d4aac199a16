#include "Figures.h"

#include "Support.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace kel::bench {

std::vector<double> Comparison::Ratios() const {
    std::vector<double> ratios;
    std::transform(measured.begin(), measured.end(), baseline.begin(), std::back_inserter(ratios),
                   [](double one, double other) { return one / other; });
    return ratios;
}

double CpuMeter::Run(const std::function<double()>& calls) {
    const double before = cpuSeconds_();
    const auto start = Clock::now();
    const double rate = calls();
    calls_ += rate * SecondsSince(start);
    used_ += cpuSeconds_() - before;
    return rate;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string Text(double number, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, number);
    return text;
}

std::string Grouped(double number) {
    std::string text = Text(number, 0);
    for (size_t place = text.size(); place > 3;) text.insert(place -= 3, 1, ',');
    return text;
}

std::string Rate(double perSecond) { return Grouped(perSecond) + " /s"; }

std::string Seconds(double seconds) { return seconds < 0.1 ? Text(seconds * 1e3, 2) + " ms" : Text(seconds, 3) + " s"; }

std::string Microseconds(double seconds) { return Text(seconds * 1e6, 1) + " us"; }

std::string Mebibytes(double bytes) { return Text(bytes / 1024 / 1024, 1) + " MiB"; }

std::string Spread(const std::vector<double>& ratios) {
    const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
    return Text(Median(ratios), 2) + " (" + Text(*least, 2) + ".." + Text(*most, 2) + ")";
}

Row RowOfRates(std::string what, const Comparison& rates, double goal) {
    const std::vector<double> ratios = rates.Ratios();
    return {std::move(what), Rate(Median(rates.measured)), Rate(Median(rates.baseline)),
            Spread(ratios),  ">= " + Text(goal, 2),        Median(ratios) >= goal};
}

Row RowOfRates(std::string what, const Comparison& rates, double goal, const CpuMeter& measured,
               const CpuMeter& baseline) {
    Row row = RowOfRates(std::move(what), rates, goal);
    row.cpuACall = Text(measured.SecondsACall() * 1e6, 1) + " / " + Microseconds(baseline.SecondsACall());
    return row;
}

Row RowOfTimes(std::string what, const Comparison& times, double goal) {
    const std::vector<double> ratios = times.Ratios();
    return {std::move(what),
            Seconds(Median(times.measured)),
            Seconds(Median(times.baseline)),
            Spread(ratios),
            goal > 0 ? "<= " + Text(goal, 2) : std::string(),
            Median(ratios) <= goal};
}

void Announce(const std::string& what) { std::fprintf(stderr, "%s ...\n", what.c_str()); }

}  // namespace kel::bench
