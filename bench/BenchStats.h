#pragma once

#include <QVector>

#include <algorithm>

// Summaries of repeated timings on a shared, noisy machine.
namespace KepBench {

inline double median(QVector<double> values)
{
    if (values.isEmpty())
        return 0;
    std::sort(values.begin(), values.end());
    const int middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

inline double minimum(const QVector<double>& values)
{
    return values.isEmpty() ? 0 : *std::min_element(values.begin(), values.end());
}

inline double maximum(const QVector<double>& values)
{
    return values.isEmpty() ? 0 : *std::max_element(values.begin(), values.end());
}

} // namespace KepBench
