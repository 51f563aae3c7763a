// Compiles the boundary layout checks as C++.
#include "LayoutChecks.h"
