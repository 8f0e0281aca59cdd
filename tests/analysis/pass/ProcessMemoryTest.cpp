#include "ProcessMemory.h"

#include <QtTest>

#include <cstdlib>
#include <cstring>

#include <malloc.h>

class ProcessMemoryTest : public QObject {
    Q_OBJECT

private slots:
    void largeBlockFreedAfterABiggerOneStillGetsAMappingOfItsOwn()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        QSKIP("The sanitizer's allocator stands in for the C library's, whose settings are tested here.");
#endif
        ProcessMemory::returnLargeBlocksAtOnce();
        // Freeing a mapped 8 MiB block would, by default, raise the threshold to 8 MiB and put
        // the next 1 MiB block in the heap, where freeing it gives nothing back.
        void* big = std::malloc(8 << 20);
        QVERIFY(big);
        std::memset(big, 1, 8 << 20);
        std::free(big);
        const std::size_t mappedBefore = mallinfo2().hblkhd;
        void* block = std::malloc(1 << 20);
        QVERIFY(block);
        std::memset(block, 1, 1 << 20);
        const std::size_t mappedWith = mallinfo2().hblkhd;
        std::free(block);
        QVERIFY2(mappedWith >= mappedBefore + (1 << 20), qPrintable(QString::number(mappedWith - mappedBefore)));
        QCOMPARE(mallinfo2().hblkhd, mappedBefore);
    }
};

QTEST_APPLESS_MAIN(ProcessMemoryTest)
#include "ProcessMemoryTest.moc"
