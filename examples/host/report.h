// What the host prints about the work of its codecs.
#ifndef HOST_REPORT_H
#define HOST_REPORT_H

#include <vector>

#include "host/roundtrip.h"

namespace host {

// Standard output: one row for each codec.
void PrintTable(const std::vector<Outcome>& outcomes);

// Standard error: the files that did not come back, not more than a screen full.
void PrintFailures(const Outcome& outcome);

}  // namespace host

#endif
