#include <QtTest>

// Placeholder until the tests are written.
class AddingInputsTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(AddingInputsTest)
#include "AddingInputsTest.moc"
