#include "DecoderThreads.h"

#include <algorithm>

namespace DecoderThreads {

int forPass(int passesAtOnce, int cores, Sharing sharing)
{
    if (passesAtOnce <= 1)
        return std::max(cores, 1);
    if (sharing == Sharing::OneEach)
        return 1;
    return std::max(cores / passesAtOnce, 1);
}

} // namespace DecoderThreads
