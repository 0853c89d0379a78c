// Rows.h: every way to change what is deployed, and what is documented of it. docs/upgrading.md
// shows these rows; a test compares.
//
// To add a case, add its row to Rows.cpp and let the test that compares the document print the
// line.
#ifndef VESSA_TESTS_RELIABILITY_UPGRADE_ROWS_H
#define VESSA_TESTS_RELIABILITY_UPGRADE_ROWS_H

#include <string>
#include <vector>

#include "reliability/upgrade/Deployment.h"

namespace upgrade {

// What is to be seen in one state: what Deployment::Observe says right after the change, after the
// next scan and, with a live instance, after that has gone: "1, going, gone". "forbidden" is a
// change after which nothing is promised.
struct Outcome {
    const char* seen;
    // The beginning of the line that tells, from information on. Null: nothing is written that is a
    // warning or an error.
    const char* line;

    bool IsForbidden() const { return std::string(seen) == "forbidden"; }
};

struct Row {
    const char* section;  // of the document
    const char* change;   // as the document says it
    Form form;
    const char* key;  // whose new instances are looked at
    void (*apply)(Deployment&);
    Outcome not_loaded;
    Outcome loaded;
    Outcome in_use;

    const Outcome& In(State state) const;
    // "| change | not loaded | loaded | in use | lines |"
    std::string InDocument() const;
};

const std::vector<Row>& Rows();

// What differs from the row, one line for each; none if all is as documented.
std::vector<std::string> Differences(const Row& row, State state);

// The rows that the document lacks, has besides, or has under another section.
std::vector<std::string> DifferencesOf(const std::string& document);

}  // namespace upgrade

#endif
