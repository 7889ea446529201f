// The pages of docs/ and the README against what they describe.
#include <gtest/gtest.h>
TEST(A,B){}
