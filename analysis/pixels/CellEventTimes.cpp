#include "CellEventTimes.h"

#include <algorithm>

namespace {

int cellsAcross(int pixels, int cellSize)
{
    return pixels <= 0 || cellSize <= 0 ? 0 : (pixels + cellSize - 1) / cellSize;
}

} // namespace

CellEventTimes::CellEventTimes(cv::Size size, int cellSize)
    : m_cellSize(std::max(cellSize, 1))
    , m_columns(cellsAcross(size.width, cellSize))
    , m_rows(cellsAcross(size.height, cellSize))
    , m_words((static_cast<std::size_t>(m_columns) * static_cast<std::size_t>(m_rows) + 63) / 64)
{
}

void CellEventTimes::record(std::int64_t second, const std::vector<std::uint8_t>& cellHits)
{
    const std::size_t count = std::min(cellHits.size(), static_cast<std::size_t>(cells()));
    std::vector<std::uint64_t>* bits = nullptr;
    for (std::size_t cell = 0; cell < count; ++cell) {
        if (cellHits[cell] == 0)
            continue;
        if (!bits) {
            bits = &m_bySecond[std::max<std::int64_t>(second, 0)];
            bits->resize(m_words, 0);
        }
        (*bits)[cell / 64] |= std::uint64_t{1} << (cell % 64);
    }
}

std::vector<std::int64_t> CellEventTimes::secondsOf(int cell) const
{
    std::vector<std::int64_t> seconds;
    if (cell < 0 || cell >= cells())
        return seconds;
    const std::size_t index = static_cast<std::size_t>(cell);
    for (const auto& [second, bits] : m_bySecond) {
        if ((bits[index / 64] >> (index % 64)) & 1U)
            seconds.push_back(second);
    }
    return seconds;
}

std::vector<std::vector<std::int64_t>> CellEventTimes::allSeconds() const
{
    std::vector<std::vector<std::int64_t>> seconds(static_cast<std::size_t>(cells()));
    for (const auto& [second, bits] : m_bySecond) {
        for (std::size_t word = 0; word < bits.size(); ++word) {
            for (std::uint64_t rest = bits[word]; rest != 0; rest &= rest - 1) {
                const std::size_t cell = word * 64 + static_cast<std::size_t>(__builtin_ctzll(rest));
                seconds[cell].push_back(second);
            }
        }
    }
    return seconds;
}
