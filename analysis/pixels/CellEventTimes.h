#pragma once

#include <opencv2/core/types.hpp>

#include <cstdint>
#include <map>
#include <vector>

// When motion events began in each cell of a grid over the video, to the second. Answers
// "when did something start moving here?" for a region of the map without keeping a time
// per event: per second that saw any new event, one bit per cell. A second costs
// cells / 8 bytes at most (1 KB for 1080p in 16 x 16 cells), and only seconds with events
// are stored, so an hour stays under 4 MB however busy the scene and a jump in a damaged
// file's timestamps costs nothing. Not thread-safe; filled by the pass's own thread.
class CellEventTimes {
public:
    CellEventTimes() = default;
    // A grid of `cellSize` x `cellSize` cells over a picture of `size`; the last column and
    // row of cells may be narrower.
    CellEventTimes(cv::Size size, int cellSize);

    int cellSize() const { return m_cellSize; }
    int columns() const { return m_columns; }
    int rows() const { return m_rows; }
    int cells() const { return m_columns * m_rows; }
    bool empty() const { return cells() == 0; }
    // The cell that holds pixel (x, y) of the picture.
    int cellAt(int x, int y) const { return (y / m_cellSize) * m_columns + x / m_cellSize; }

    // Marks an event beginning at `second` in every cell whose flag in `cellHits` (one byte a
    // cell, row by row) is non-zero. Negative seconds count as 0.
    void record(std::int64_t second, const std::vector<std::uint8_t>& cellHits);

    // The distinct seconds at which an event began in `cell`, in ascending order.
    std::vector<std::int64_t> secondsOf(int cell) const;
    // The seconds of every cell at once, indexed by cell; faster than secondsOf for each.
    std::vector<std::vector<std::int64_t>> allSeconds() const;
    // Seconds that saw any event.
    std::size_t activeSeconds() const { return m_bySecond.size(); }

private:
    int m_cellSize = 0;
    int m_columns = 0;
    int m_rows = 0;
    std::size_t m_words = 0;
    std::map<std::int64_t, std::vector<std::uint64_t>> m_bySecond;
};
