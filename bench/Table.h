// Table: the rows of one run, each case's rates with its ratios to the limit
// and to the peer measured in the same run, and the targets checked on them.
#pragma once

#include "Harness.h"

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

struct Row {
    std::string key;       // how other rows and targets name this one
    std::string name;      // what the table shows
    Rates rates;
    std::string limit;     // key of the row this one is compared with as its limit or bound
    std::string peer;      // key of the peer's row
    std::string note;
    std::string label;     // the short name under which other rows cite this one
};

// A ratio a case must reach: rows[row].median / rows[reference].median, or
// with everyRun the row's slowest run over the reference's median.
struct Target {
    std::string row;
    std::string reference;
    double atLeast;
    bool everyRun = false;
};

class Table {
public:
    void section(const std::string& title);
    void add(Row row);
    const Row* find(const std::string& key) const;
    // The ratio of two rows' medians; 0 when either is missing.
    double ratio(const std::string& row, const std::string& reference) const;

    void target(Target t) { targets.push_back(std::move(t)); }
    // Prints the table, then each target with its ratio; returns how many
    // targets were missed.
    int print(std::FILE* out) const;

private:
    std::string ratioCell(const Row& row, const std::string& reference) const;

    std::vector<Row> rows;   // a row without rates is a section title
    std::vector<Target> targets;
};

} // namespace bench
