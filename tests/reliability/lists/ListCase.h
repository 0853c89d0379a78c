// ListCase.h: one stored list file and what is to become of it.
//
// A case is two files in the folder "files": what stands in the list file, and NAME.expect. The
// former is NAME.xml, taken as it is, or NAME.recipe, for what is big or no ordinary file. A
// recipe has one step in a line:
//
//     text TEXT          appends the text
//     repeat N TEXT      appends it N times; {n} in it is the number of the copy, from 0 on
//     fill BYTES TEXT    the same, as often as it fits into so many bytes in all
//     upto BYTES TEXT    the same; the last copy is cut
//     kind WHAT          fifo, device, folder, dangling, loop, socket, grows, shrinks: no ordinary
//                        file. One that grows or shrinks has the content and does so while it is
//                        read.
//
// An expectation has the verdict in its first line:
//
//     accepted   it is read, and all that it declares is registered
//     refused    nothing of it is, and the log has the reason, once
//     absent     the scan does not take it for a list file at all; it is refused when it comes in
//                the place of one that the scan has seen
//
// and then in any number
//
//     fkey KEY           declared, in the order of the document
//     fkeys N KEY        N of them, with {n} in it
//     long N KEY         one, which is KEY N times
//     unregistered KEY   as fkey, but it cannot be registered
//     log LINE           as "5 text", what is logged of warnings and errors, in this order; {*} is
//                        any text and {path} the file's path. For a refused file it is the reason
//                        alone: the two lines by which the caller passes it on follow always.
//
// For a file of which every truncation is looked at:
//
//     cut BYTES LINE     what is logged as the reason when it is cut to so many bytes or more, up
//                        to the next such line; or "accepted"
//
// In TEXT, KEY and LINE stand \n, \t, \r, \s (a blank), \\ and \xHH for bytes.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace vessa_lists {

struct ListCase {
    enum class Verdict { kAccepted, kRefused, kAbsent };

    std::string name;
    std::string kind;  // empty: a regular file
    std::string content;
    Verdict verdict = Verdict::kRefused;
    std::vector<std::string> fkeys;
    std::set<std::string> unregistered;  // of the fkeys
    std::vector<std::string> log;
    std::map<size_t, std::string> cuts;
};

// The folder with the stored cases.
std::string FilesFolder();
// The names of all of them, in order. Throws std::runtime_error for half a case.
std::vector<std::string> StoredCases();
// Throws std::runtime_error with the line that cannot be understood.
ListCase ReadCase(const std::string& name);
ListCase ParseExpectation(ListCase list_case, const std::string& text);
ListCase ParseRecipe(ListCase list_case, const std::string& text);

// Makes the absolute path what the case says, over what was there.
void Place(const ListCase& list_case, const std::string& path);

}  // namespace vessa_lists
