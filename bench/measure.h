// Floor and case in turn, in one run: a machine's speed swings by half from second to second, so only the
// ratio of two medians taken side by side counts.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace bench
{

struct Figures {
    double floor = 0; // medians, in microseconds
    double measured = 0;
    [[nodiscard]] double Ratio() const { return measured / floor; }
};

inline double Median(std::vector<double> times)
{
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

template<typename Work>
double Microseconds(Work& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// Each of both `rounds` times; who goes first changes from round to round.
template<typename Floor, typename Case>
Figures InTurn(int rounds, Floor floor, Case measured)
{
    std::vector<double> floors;
    std::vector<double> cases;
    floor();
    measured(); // warm
    for (int round = 0; round < rounds; ++round) {
        if (round % 2 == 0) {
            floors.push_back(Microseconds(floor));
            cases.push_back(Microseconds(measured));
        } else {
            cases.push_back(Microseconds(measured));
            floors.push_back(Microseconds(floor));
        }
    }
    return {Median(std::move(floors)), Median(std::move(cases))};
}

// How a time grows with a number of things: the exponent of the line through the logarithms. 0: not at all,
// 1: in proportion.
inline double Slope(const std::vector<std::pair<double, double>>& timesByNumber)
{
    double sumX = 0;
    double sumY = 0;
    double sumXX = 0;
    double sumXY = 0;
    for (const auto& [number, time] : timesByNumber) {
        const double x = std::log(number);
        const double y = std::log(time);
        sumX += x;
        sumY += y;
        sumXX += x * x;
        sumXY += x * y;
    }
    const auto count = static_cast<double>(timesByNumber.size());
    return (count * sumXY - sumX * sumY) / (count * sumXX - sumX * sumX);
}

inline void Head()
{
    std::printf("%-44s %12s %12s %7s %7s\n", "", "floor us", "case us", "ratio", "goal");
}

// True when the ratio is at most `goal`; 0: for information.
inline bool Row(const char* what, const Figures& figures, double goal)
{
    const bool met = goal <= 0 || figures.Ratio() <= goal;
    std::printf("%-44s %12.1f %12.1f %7.3f ", what, figures.floor, figures.measured, figures.Ratio());
    if (goal > 0) {
        std::printf("%7.2f%s\n", goal, met ? "" : "  missed");
    } else {
        std::printf("%7s\n", "-");
    }
    std::fflush(stdout);
    return met;
}

constexpr int kCounts[] = {1000, 10000, 100000, 1000000};

// Fewer rounds of what takes longer.
inline int RoundsFor(int count)
{
    return count >= 1000000 ? 7 : count >= 100000 ? 31 : 301;
}

// Rows of one question, for growing numbers of things.
class Growth
{
public:
    explicit Growth(std::string what) : what_(std::move(what)) {}

    bool Row(int count, const Figures& figures, double goal)
    {
        floors_.emplace_back(count, figures.floor);
        cases_.emplace_back(count, figures.measured);
        return bench::Row((what_ + ", " + std::to_string(count)).c_str(), figures, goal);
    }

    void Print() const
    {
        std::printf("%-44s %12.2f %12.2f\n", (what_ + ", slope").c_str(), Slope(floors_), Slope(cases_));
        std::fflush(stdout);
    }

    // True when the times do not grow.
    [[nodiscard]] bool Flat() const
    {
        Print();
        return Slope(cases_) < 0.05;
    }

private:
    std::string what_;
    std::vector<std::pair<double, double>> floors_;
    std::vector<std::pair<double, double>> cases_;
};

} // namespace bench
