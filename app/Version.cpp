#include "Version.h"

const char* const Version::version = "1.0.8";
