// Which reports the tests have seen, left for the test reports_are_all_seen, which compares them with the list of
// reports.
#pragma once

#include "host/tracing/decode.h"

namespace tests {

// Adds what was captured to the running test's file in the build folder's reports_seen/. Its first line names the test
// program, so that files of earlier programs do not count.
void NoteReportsSeen(const host::tracing::Tracing& tracing, const host::tracing::Manifest& manifest);

}  // namespace tests
