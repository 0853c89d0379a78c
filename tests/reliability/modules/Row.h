// Row.h: the table of hostile modules. Each is wrong in one way; its row says what the eight
// exports answer, and what is there afterwards.
//
// A new module: the module itself (CMakeLists.txt here or in tests/modules, or a file that
// Files.h makes), and a row in Rows.cpp. One that cannot be refused: a row in NotSurvived_test.cpp,
// and a sentence in docs/plugin-authors.md.
#ifndef VESSA_TESTS_RELIABILITY_MODULES_ROW_H
#define VESSA_TESTS_RELIABILITY_MODULES_ROW_H

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace hostile {

// A result, and the module's own number where there is one.
struct Answer {
    int result = 0;
    int error = 0;
};

struct Row {
    std::string name;       // of the test
    std::string module;     // a test module's; empty: the file
    std::string file;       // a kind of Files.h
    std::string operation;  // in which the module acts, for those of Acts.cpp

    Answer load;  // at a start; with a failure that of the create as well
    Answer create;
    bool gives_null = false;  // as instance
    Answer query;
    bool finds_null = false;  // as interface
    int second = 0;           // a create while the first instance lives
    Answer destroy;
    int twice = -2147483647;  // a destroy of the same instance
    // Announced keys and what a create of each gives; when not delay-loaded.
    std::vector<std::pair<std::string, int>> keys;

    bool loses_instance = false;  // the module does not free it
    bool stays = false;           // the module is mapped after the stop
    std::string left;             // what else is there then
};

inline std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}

std::vector<Row> AllRows();

// What the host must tell of the row: its start and two lives, the second like the first.
std::vector<std::string> ExpectedLines(const Row& row, bool delay_load);

// What the host told instead, with a mark at each difference; empty: all is as expected.
std::string Differences(const std::vector<std::string>& expected, const std::string& told);

std::string ResultName(int result);

}  // namespace hostile

#endif
