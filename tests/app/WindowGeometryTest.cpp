#include "TestSupport.h"
#include "Utils.h"

#include <QSettings>
#include <QWidget>
#include <QtTest>

#include <memory>

namespace {

const QRect kSentinel(-9999, -9999, 9999, 9999);

std::unique_ptr<QWidget> formSizedWindow()
{
    auto window = std::make_unique<QWidget>();
    window->resize(800, 600);
    return window;
}

void store(const QString& name, const QVariant& geometry, const QVariant& maximized)
{
    QSettings settings;
    if (geometry.isValid())
        settings.setValue(QStringLiteral("geometry_") + name, geometry);
    if (maximized.isValid())
        settings.setValue(QStringLiteral("is_maximized_") + name, maximized);
}

} // namespace

class WindowGeometryTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void firstRunKeepsFormSizeUnmaximised();
    void savingWritesBothKeys();
    void savedGeometryIsRestored();
    void closingMaximisedRestoresMaximisedIgnoringRectangle();
    void savingWhileMaximisedStoresMaximisedRectangle();
    void sentinelRectangleIsTreatedAsAbsent();
    void rectangleDifferingFromSentinelInOneCoordinateIsApplied();
    void offScreenRectangleIsAppliedUnchanged();
    void twoNamesKeepSeparateKeys();

private:
    std::unique_ptr<TestSupport::ScopedSettings> m_settings;
};

void WindowGeometryTest::init()
{
    m_settings = std::make_unique<TestSupport::ScopedSettings>();
    QCoreApplication::setOrganizationName(QStringLiteral("tremora"));
    QCoreApplication::setApplicationName(QStringLiteral("tremora"));
}

void WindowGeometryTest::cleanup()
{
    m_settings.reset();
}

void WindowGeometryTest::firstRunKeepsFormSizeUnmaximised()
{
    auto window = formSizedWindow();
    const QRect before = window->geometry();
    Utils::updateWindowGeometry(window.get(), true, QStringLiteral("main_window"));
    QCOMPARE(window->geometry(), before);
    QCOMPARE(window->size(), QSize(800, 600));
    QVERIFY(!window->isMaximized());
    QVERIFY(!window->isVisible());
}

void WindowGeometryTest::savingWritesBothKeys()
{
    auto window = formSizedWindow();
    window->setGeometry(QRect(30, 40, 640, 480));
    Utils::updateWindowGeometry(window.get(), false, QStringLiteral("main_window"));

    QSettings settings;
    QVERIFY(settings.contains(QStringLiteral("geometry_main_window")));
    QVERIFY(settings.contains(QStringLiteral("is_maximized_main_window")));
    QCOMPARE(settings.value(QStringLiteral("geometry_main_window")).toRect(), QRect(30, 40, 640, 480));
    QCOMPARE(settings.value(QStringLiteral("is_maximized_main_window")).toBool(), false);
}

void WindowGeometryTest::savedGeometryIsRestored()
{
    store(QStringLiteral("main_window"), QRect(120, 90, 700, 500), false);
    auto window = formSizedWindow();
    Utils::updateWindowGeometry(window.get(), true, QStringLiteral("main_window"));
    QCOMPARE(window->geometry(), QRect(120, 90, 700, 500));
}

void WindowGeometryTest::closingMaximisedRestoresMaximisedIgnoringRectangle()
{
    {
        auto first = formSizedWindow();
        first->showMaximized();
        QVERIFY(QTest::qWaitForWindowExposed(first.get()));
        QVERIFY(first->isMaximized());
        Utils::updateWindowGeometry(first.get(), false, QStringLiteral("main_window"));
    }
    QSettings().setValue(QStringLiteral("geometry_main_window"), QRect(5, 6, 321, 234));

    auto second = formSizedWindow();
    Utils::updateWindowGeometry(second.get(), true, QStringLiteral("main_window"));
    QVERIFY(second->isMaximized());
    QVERIFY(second->isVisible());
    QVERIFY(second->geometry().size() != QSize(321, 234));
}

void WindowGeometryTest::savingWhileMaximisedStoresMaximisedRectangle()
{
    auto window = formSizedWindow();
    window->showMaximized();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    QTRY_VERIFY(window->size() != QSize(800, 600));
    Utils::updateWindowGeometry(window.get(), false, QStringLiteral("main_window"));

    QSettings settings;
    QCOMPARE(settings.value(QStringLiteral("is_maximized_main_window")).toBool(), true);
    QCOMPARE(settings.value(QStringLiteral("geometry_main_window")).toRect(), window->geometry());
}

void WindowGeometryTest::sentinelRectangleIsTreatedAsAbsent()
{
    store(QStringLiteral("main_window"), kSentinel, false);
    auto window = formSizedWindow();
    window->move(50, 60);
    const QRect before = window->geometry();
    Utils::updateWindowGeometry(window.get(), true, QStringLiteral("main_window"));
    QCOMPARE(window->geometry(), before);
    QCOMPARE(window->size(), QSize(800, 600));
}

void WindowGeometryTest::rectangleDifferingFromSentinelInOneCoordinateIsApplied()
{
    const QRect almostSentinel(-9999, -9999, 9999, 9998);
    store(QStringLiteral("main_window"), almostSentinel, false);
    auto window = formSizedWindow();
    Utils::updateWindowGeometry(window.get(), true, QStringLiteral("main_window"));
    QCOMPARE(window->geometry(), almostSentinel);
}

void WindowGeometryTest::offScreenRectangleIsAppliedUnchanged()
{
    const QRect farAway(-7000, 12000, 640, 480);
    store(QStringLiteral("main_window"), farAway, false);
    auto window = formSizedWindow();
    Utils::updateWindowGeometry(window.get(), true, QStringLiteral("main_window"));
    QCOMPARE(window->geometry(), farAway);
}

void WindowGeometryTest::twoNamesKeepSeparateKeys()
{
    auto first = formSizedWindow();
    first->setGeometry(QRect(10, 20, 500, 400));
    auto second = formSizedWindow();
    second->setGeometry(QRect(300, 200, 450, 350));
    Utils::updateWindowGeometry(first.get(), false, QStringLiteral("first"));
    Utils::updateWindowGeometry(second.get(), false, QStringLiteral("second"));

    QSettings settings;
    QCOMPARE(settings.value(QStringLiteral("geometry_first")).toRect(), QRect(10, 20, 500, 400));
    QCOMPARE(settings.value(QStringLiteral("geometry_second")).toRect(), QRect(300, 200, 450, 350));
    QVERIFY(settings.contains(QStringLiteral("is_maximized_first")));
    QVERIFY(settings.contains(QStringLiteral("is_maximized_second")));

    auto restoredFirst = formSizedWindow();
    auto restoredSecond = formSizedWindow();
    Utils::updateWindowGeometry(restoredFirst.get(), true, QStringLiteral("first"));
    Utils::updateWindowGeometry(restoredSecond.get(), true, QStringLiteral("second"));
    QCOMPARE(restoredFirst->geometry(), QRect(10, 20, 500, 400));
    QCOMPARE(restoredSecond->geometry(), QRect(300, 200, 450, 350));
}

QTEST_MAIN(WindowGeometryTest)
#include "WindowGeometryTest.moc"
