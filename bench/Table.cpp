// Printing the table and checking the targets.

#include "Table.h"

namespace bench {

void Table::section(const std::string& title)
{
    rows.push_back(Row{"", title, {}, "", "", "", ""});
}

void Table::add(Row row)
{
    if (row.label.empty())
        row.label = row.name;
    rows.push_back(std::move(row));
}

const Row* Table::find(const std::string& key) const
{
    for (const Row& r : rows)
        if (!r.key.empty() && r.key == key)
            return &r;
    return nullptr;
}

double Table::ratio(const std::string& row, const std::string& reference) const
{
    const Row* a = find(row);
    const Row* b = find(reference);
    if (!a || !b || b->rates.median <= 0.0)
        return 0.0;
    return a->rates.median / b->rates.median;
}

std::string Table::ratioCell(const Row& row, const std::string& reference) const
{
    const Row* ref = find(reference);
    if (reference.empty() || !ref)
        return "";
    const double r = ratio(row.key, reference);
    char text[64];
    std::snprintf(text, sizeof text, r < 10.0 ? "%.2fx %s" : "%.0fx %s", r, ref->label.c_str());
    return text;
}

int Table::print(std::FILE* out) const
{
    std::fprintf(out, "%-46s %8s  %-17s  %-20s %-20s %s\n", "case (records/s)", "median", "min .. max",
                 "vs limit/bound", "vs peer", "note");
    for (const Row& r : rows) {
        if (r.key.empty()) {
            std::fprintf(out, "\n%s\n", r.name.c_str());
            continue;
        }
        const std::string span = shortNumber(r.rates.min) + " .. " + shortNumber(r.rates.max);
        char line[512];
        std::snprintf(line, sizeof line, "  %-44s %8s  %-17s  %-20s %-20s %s", r.name.c_str(),
                      shortNumber(r.rates.median).c_str(), span.c_str(), ratioCell(r, r.limit).c_str(),
                      ratioCell(r, r.peer).c_str(), r.note.c_str());
        std::string text = line;
        text.erase(text.find_last_not_of(' ') + 1);
        std::fprintf(out, "%s\n", text.c_str());
    }
    int missed = 0;
    std::fprintf(out, "\nTargets (ratios of medians measured in this run)\n");
    for (const Target& t : targets) {
        const Row* a = find(t.row);
        const Row* b = find(t.reference);
        if (!a || !b)
            continue;
        const double r = t.everyRun ? (b->rates.median > 0.0 ? a->rates.min / b->rates.median : 0.0)
                                    : ratio(t.row, t.reference);
        const bool met = r >= t.atLeast;
        missed += met ? 0 : 1;
        const std::string name = a->name + (t.everyRun ? " (slowest)" : "");
        std::fprintf(out, "  %-44s / %-24s %7.2f  >= %-5.2f %s\n", name.c_str(), b->label.c_str(), r,
                     t.atLeast, met ? "met" : "MISSED");
    }
    return missed;
}

} // namespace bench
