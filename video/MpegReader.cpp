#include "MpegReader.h"
