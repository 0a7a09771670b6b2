#ifndef TANDEM_APP_WATCH_COLUMNS_H
#define TANDEM_APP_WATCH_COLUMNS_H

#include <span>
#include <string>

#include "app/watch_rates.h"

namespace tandem::app {

// What is told of a path in numbers: the table shows the columns that have a heading, JSON has all.
struct path_column_t {
    const char* key;
    double (*value)(const path_report_t&);
    const char* heading = nullptr;
    int width = 0;  // characters, the space before the column included
    std::string (*text)(const path_report_t&) = nullptr;
};

std::span<const path_column_t> path_columns();

// A number and its unit in about three digits.
std::string with_unit(double value, const char* unit);
std::string bit_rate(double bytes_a_second);

}  // namespace tandem::app

#endif  // TANDEM_APP_WATCH_COLUMNS_H
