# Read by CTest behind the lists of cases: reports_are_all_seen runs when all that leave what they saw have run.
set_tests_properties(reports_are_all_seen PROPERTIES DEPENDS "${behaviour_cases}")
