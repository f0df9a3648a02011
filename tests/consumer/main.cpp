// Written by Check.cmake.
#include "AllOfOstra.h"

int main() { return Ostra::flowIdFromName(Ostra::buildFlowName(42)) == 42 ? 0 : 1; }
