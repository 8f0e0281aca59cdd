#include "MpegWriter.h"
