#include "MpegFrame.h"
