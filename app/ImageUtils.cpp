#include "Utils.h"
