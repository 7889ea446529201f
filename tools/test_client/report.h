// What came of a course: for people, and as JUnit for machines.
#pragma once

#include "tools/test_client/course.h"

#include <iosfwd>

namespace test_client {

// The first finding comes first, then everything that was tried.
void Print(std::ostream& out, const CourseSetup& setup, const Report& report, bool isColored);
void WriteJUnit(std::ostream& out, const CourseSetup& setup, const Report& report);

[[nodiscard]] std::size_t FailedCount(const Report& report);

}  // namespace test_client
