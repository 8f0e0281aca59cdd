#include "LargePages.h"

#include <QtTest>

#include <cstdint>
#include <cstring>
#include <limits>

class LargePagesTest : public QObject {
    Q_OBJECT

private slots:
    void memoryStartsOnALargePageAndIsZero()
    {
        // Not a whole number of pages, so that the end is rounded as unmap() expects.
        const std::size_t bytes = 3 * LargePages::kLargePage + 1000;
        auto* memory = static_cast<std::uint8_t*>(LargePages::map(bytes));
        QVERIFY(memory);
        QCOMPARE(reinterpret_cast<std::uintptr_t>(memory) % LargePages::kLargePage, std::uintptr_t{0});
        for (std::size_t i = 0; i < bytes; i += 4093)
            QCOMPARE(memory[i], std::uint8_t{0});
        QCOMPARE(memory[bytes - 1], std::uint8_t{0});
        std::memset(memory, 0x5a, bytes);
        QCOMPARE(memory[bytes - 1], std::uint8_t{0x5a});
        LargePages::unmap(memory, bytes);
    }

    void mappingsDoNotOverlap()
    {
        const std::size_t bytes = LargePages::kLargePage / 2;
        auto* first = static_cast<std::uint8_t*>(LargePages::map(bytes));
        auto* second = static_cast<std::uint8_t*>(LargePages::map(bytes));
        QVERIFY(first && second);
        QVERIFY(first + bytes <= second || second + bytes <= first);
        std::memset(first, 1, bytes);
        std::memset(second, 2, bytes);
        QCOMPARE(first[bytes - 1], std::uint8_t{1});
        QCOMPARE(second[0], std::uint8_t{2});
        LargePages::unmap(first, bytes);
        LargePages::unmap(second, bytes);
    }

    void tooMuchGivesNull()
    {
        QVERIFY(!LargePages::map(std::numeric_limits<std::size_t>::max() / 4));
    }
};

QTEST_GUILESS_MAIN(LargePagesTest)
#include "LargePagesTest.moc"
