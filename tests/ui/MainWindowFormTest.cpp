#include "ui_MainWindow.h"

#include <QImageReader>
#include <QTranslator>
#include <QtTest>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>

// Generated from resources/quorl.qrc; registered by a static initialiser at start.
int qInitResources_quorl();
int qCleanupResources_quorl();

namespace {

struct FormWindow {
    FormWindow()
    {
        form.setupUi(&window);
    }
    QMainWindow window;
    Ui_MainWindow form;
};

// Translates the form's context only, so a text that changes proves it went through
// QCoreApplication::translate with the context "MainWindow".
class MainWindowTranslator : public QTranslator {
public:
    QString translate(const char* context, const char* sourceText, const char* disambiguation,
                      int n) const override
    {
        Q_UNUSED(disambiguation)
        Q_UNUSED(n)
        if (qstrcmp(context, "MainWindow") != 0)
            return QString();
        const QString source = QString::fromUtf8(sourceText);
        if (source == QLatin1String("Add &Files"))
            return QStringLiteral("Dateien &hinzufügen");
        if (source == QLatin1String("Ctrl+O"))
            return QStringLiteral("Ctrl+P");
        if (source == QLatin1String("Tremora"))
            return QStringLiteral("Tremora übersetzt");
        if (source == QLatin1String("&File"))
            return QStringLiteral("&Datei");
        return QString();
    }

    bool isEmpty() const override { return false; }
};

// Records which by-name slots the form connected.
class SlotRecorder : public QMainWindow {
    Q_OBJECT
public:
    QStringList calls;

private slots:
    void on_actionQuit_triggered() { calls << QStringLiteral("quit"); }
    void on_pushButtonCancel_clicked() { calls << QStringLiteral("cancel"); }
    void on_mainList_itemSelectionChanged() { calls << QStringLiteral("selection"); }
};

QPoint cellOf(QGridLayout* grid, int index)
{
    int row = -1, column = -1, rowSpan = -1, columnSpan = -1;
    grid->getItemPosition(index, &row, &column, &rowSpan, &columnSpan);
    if (rowSpan != 1 || columnSpan != 1)
        return QPoint(-1, -1);
    return QPoint(column, row);
}

} // namespace

class MainWindowFormTest : public QObject {
    Q_OBJECT

private slots:
    void quorlResourceIsRegisteredBeforeAnyWindow();
    void quorlIconHoldsFiveSizesLargestFirst();
    void quorlCollectionUnregistersAndRegistersAgain();
    void windowGetsNameSizeMinimumAndIcon();
    void presetObjectNameIsKept();
    void shrinkingStopsAtMinimumSize();
    void actionsAreCreatedInMemberOrder();
    void membersAreDeclaredInFormOrder();
    void strayActionExistsWithDashTextInNoMenu();
    void menuListsActionsInMenuOrder();
    void buttonsSitInOneRowAroundSpacer();
    void layoutsAreNestedAsDesigned();
    void listShowsOneColumnOfLargeStaticIcons();
    void textsAndShortcuts_data();
    void textsAndShortcuts();
    void formDisablesNothingAndSetsNoDefaultButton();
    void retranslateUiFollowsInstalledTranslation();
    void retranslateUiReappliesTexts();
    void slotsAreConnectedByName();
};

void MainWindowFormTest::quorlResourceIsRegisteredBeforeAnyWindow()
{
    QVERIFY(QFile::exists(QStringLiteral(":/quorl.ico")));
}

void MainWindowFormTest::quorlIconHoldsFiveSizesLargestFirst()
{
    QImageReader reader(QStringLiteral(":/quorl.ico"));
    QCOMPARE(reader.format(), QByteArray("ico"));
    QCOMPARE(reader.imageCount(), 5);
    const QImage first = reader.read();
    QCOMPARE(first.size(), QSize(128, 128));

    QList<int> sides{first.width()};
    while (reader.jumpToNextImage()) {
        const QImage image = reader.read();
        QVERIFY(!image.isNull());
        QCOMPARE(image.width(), image.height());
        sides << image.width();
    }
    std::sort(sides.begin(), sides.end());
    QCOMPARE(sides, (QList<int>{16, 32, 48, 64, 128}));
}

void MainWindowFormTest::quorlCollectionUnregistersAndRegistersAgain()
{
    QCOMPARE(qCleanupResources_quorl(), 1);
    QVERIFY(!QFile::exists(QStringLiteral(":/quorl.ico")));
    QCOMPARE(qInitResources_quorl(), 1);
    QVERIFY(QFile::exists(QStringLiteral(":/quorl.ico")));
}

void MainWindowFormTest::windowGetsNameSizeMinimumAndIcon()
{
    FormWindow w;
    QCOMPARE(w.window.objectName(), QStringLiteral("MainWindow"));
    QCOMPARE(w.window.size(), QSize(800, 600));
    QCOMPARE(w.window.minimumSize(), QSize(400, 300));
    QCOMPARE(w.window.windowTitle(), QStringLiteral("Tremora"));

    const QList<QSize> sizes = w.window.windowIcon().availableSizes();
    QVERIFY2(sizes.contains(QSize(128, 128)), "the icon's largest image is missing");
    QVERIFY2(sizes.contains(QSize(16, 16)), "the icon's smallest image is missing");
    QCOMPARE(w.window.windowIcon().pixmap(QSize(128, 128)).size(), QSize(128, 128));
}

void MainWindowFormTest::presetObjectNameIsKept()
{
    QMainWindow window;
    window.setObjectName(QStringLiteral("Other"));
    Ui_MainWindow form;
    form.setupUi(&window);
    QCOMPARE(window.objectName(), QStringLiteral("Other"));
}

void MainWindowFormTest::shrinkingStopsAtMinimumSize()
{
    FormWindow w;
    w.window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w.window));
    w.window.resize(100, 80);
    QCOMPARE(w.window.size(), QSize(400, 300));
}

void MainWindowFormTest::actionsAreCreatedInMemberOrder()
{
    FormWindow w;
    const QList<QAction*> actions = w.window.findChildren<QAction*>(QString(), Qt::FindDirectChildrenOnly);
    QStringList names;
    for (const QAction* action : actions)
        names << action->objectName();
    QCOMPARE(names, (QStringList{"actionAddFiles", "actionAddDirectory", "action", "actionQuit",
                                 "actionRemoveSelected", "actionRemoveAll", "actionCancelProcessing",
                                 "actionSaveMap", "actionOpenVideoFile", "actionSaveAllMaps"}));
    const QList<QAction*> members{w.form.actionAddFiles, w.form.actionAddDirectory, w.form.action,
                                  w.form.actionQuit, w.form.actionRemoveSelected, w.form.actionRemoveAll,
                                  w.form.actionCancelProcessing, w.form.actionSaveMap,
                                  w.form.actionOpenVideoFile, w.form.actionSaveAllMaps};
    QCOMPARE(actions, members);
}

void MainWindowFormTest::membersAreDeclaredInFormOrder()
{
    const std::size_t offsets[] = {
        offsetof(Ui_MainWindow, actionAddFiles), offsetof(Ui_MainWindow, actionAddDirectory),
        offsetof(Ui_MainWindow, action), offsetof(Ui_MainWindow, actionQuit),
        offsetof(Ui_MainWindow, actionRemoveSelected), offsetof(Ui_MainWindow, actionRemoveAll),
        offsetof(Ui_MainWindow, actionCancelProcessing), offsetof(Ui_MainWindow, actionSaveMap),
        offsetof(Ui_MainWindow, actionOpenVideoFile), offsetof(Ui_MainWindow, actionSaveAllMaps),
        offsetof(Ui_MainWindow, centralwidget), offsetof(Ui_MainWindow, gridLayout_2),
        offsetof(Ui_MainWindow, verticalLayout), offsetof(Ui_MainWindow, gridLayout),
        offsetof(Ui_MainWindow, horizontalSpacer), offsetof(Ui_MainWindow, pushButtonSaveAllMap),
        offsetof(Ui_MainWindow, pushButtonAddFiles), offsetof(Ui_MainWindow, pushButtonCancel),
        offsetof(Ui_MainWindow, pushButtonAddDirectory), offsetof(Ui_MainWindow, mainList),
        offsetof(Ui_MainWindow, menubar), offsetof(Ui_MainWindow, menu_File),
        offsetof(Ui_MainWindow, statusbar)};
    for (std::size_t i = 0; i < std::size(offsets); ++i)
        QCOMPARE(offsets[i], i * sizeof(void*));
    QCOMPARE(sizeof(Ui_MainWindow), std::size(offsets) * sizeof(void*));
}

void MainWindowFormTest::strayActionExistsWithDashTextInNoMenu()
{
    FormWindow w;
    auto* stray = w.window.findChild<QAction*>(QStringLiteral("action"));
    QVERIFY(stray);
    QCOMPARE(stray, w.form.action);
    QCOMPARE(stray->text(), QStringLiteral("-"));
    QCOMPARE(stray->parent(), &w.window);
    QVERIFY(!w.form.menu_File->actions().contains(stray));
    QVERIFY(!w.form.menubar->actions().contains(stray));
    for (const QWidget* widget : stray->associatedWidgets())
        QVERIFY2(!qobject_cast<const QMenu*>(widget), "the stray action stands in a menu");
}

void MainWindowFormTest::menuListsActionsInMenuOrder()
{
    FormWindow w;
    QCOMPARE(w.form.menubar->actions(), QList<QAction*>{w.form.menu_File->menuAction()});
    QCOMPARE(w.form.menu_File->parent(), w.form.menubar);
    QCOMPARE(w.window.menuBar(), w.form.menubar);
    QCOMPARE(w.window.statusBar(), w.form.statusbar);

    QStringList entries;
    for (const QAction* action : w.form.menu_File->actions())
        entries << (action->isSeparator() ? QStringLiteral("|") : action->objectName());
    QCOMPARE(entries, (QStringList{"actionAddFiles", "actionAddDirectory", "|", "actionSaveMap",
                                   "actionSaveAllMaps", "actionOpenVideoFile", "|",
                                   "actionCancelProcessing", "|", "actionRemoveSelected",
                                   "actionRemoveAll", "|", "actionQuit"}));
}

void MainWindowFormTest::buttonsSitInOneRowAroundSpacer()
{
    FormWindow w;
    QGridLayout* grid = w.form.gridLayout;
    QCOMPARE(grid->count(), 5);
    QCOMPARE(cellOf(grid, grid->indexOf(w.form.pushButtonAddFiles)), QPoint(0, 0));
    QCOMPARE(cellOf(grid, grid->indexOf(w.form.pushButtonAddDirectory)), QPoint(1, 0));
    QCOMPARE(cellOf(grid, grid->indexOf(w.form.pushButtonCancel)), QPoint(3, 0));
    QCOMPARE(cellOf(grid, grid->indexOf(w.form.pushButtonSaveAllMap)), QPoint(4, 0));

    int spacerIndex = -1;
    for (int i = 0; i < grid->count(); ++i)
        if (grid->itemAt(i)->spacerItem() == w.form.horizontalSpacer)
            spacerIndex = i;
    QVERIFY(spacerIndex >= 0);
    QCOMPARE(cellOf(grid, spacerIndex), QPoint(2, 0));
    QCOMPARE(w.form.horizontalSpacer->sizeHint(), QSize(40, 20));
    QCOMPARE(w.form.horizontalSpacer->sizePolicy().horizontalPolicy(), QSizePolicy::Expanding);
    QCOMPARE(w.form.horizontalSpacer->sizePolicy().verticalPolicy(), QSizePolicy::Minimum);

    for (QPushButton* button : {w.form.pushButtonSaveAllMap, w.form.pushButtonAddFiles,
                                w.form.pushButtonCancel, w.form.pushButtonAddDirectory})
        QCOMPARE(button->parentWidget(), w.form.centralwidget);
}

void MainWindowFormTest::layoutsAreNestedAsDesigned()
{
    FormWindow w;
    QCOMPARE(w.window.centralWidget(), w.form.centralwidget);
    QCOMPARE(w.form.centralwidget->objectName(), QStringLiteral("centralwidget"));
    QCOMPARE(w.form.centralwidget->layout(), w.form.gridLayout_2);
    QCOMPARE(w.form.gridLayout_2->objectName(), QStringLiteral("gridLayout_2"));
    QCOMPARE(w.form.verticalLayout->objectName(), QStringLiteral("verticalLayout"));
    QCOMPARE(w.form.gridLayout->objectName(), QStringLiteral("gridLayout"));

    QCOMPARE(w.form.gridLayout_2->count(), 1);
    QCOMPARE(w.form.gridLayout_2->itemAt(0)->layout(), w.form.verticalLayout);
    QCOMPARE(cellOf(w.form.gridLayout_2, 0), QPoint(0, 0));

    QCOMPARE(w.form.verticalLayout->count(), 2);
    QCOMPARE(w.form.verticalLayout->itemAt(0)->layout(), w.form.gridLayout);
    QCOMPARE(w.form.verticalLayout->itemAt(1)->widget(), w.form.mainList);
    QCOMPARE(w.form.verticalLayout->stretch(0), 0);
    QCOMPARE(w.form.verticalLayout->stretch(1), 0);
    QCOMPARE(w.form.mainList->parentWidget(), w.form.centralwidget);
}

void MainWindowFormTest::listShowsOneColumnOfLargeStaticIcons()
{
    FormWindow w;
    QListWidget* list = w.form.mainList;
    QCOMPARE(list->objectName(), QStringLiteral("mainList"));
    QCOMPARE(list->selectionMode(), QAbstractItemView::ExtendedSelection);
    QCOMPARE(list->iconSize(), QSize(800, 600));
    QCOMPARE(list->verticalScrollMode(), QAbstractItemView::ScrollPerPixel);
    QCOMPARE(list->horizontalScrollMode(), QAbstractItemView::ScrollPerPixel);
    QCOMPARE(list->movement(), QListView::Static);
    QCOMPARE(list->flow(), QListView::TopToBottom);
    QCOMPARE(list->isWrapping(), false);
    QCOMPARE(list->spacing(), 16);
    QCOMPARE(list->viewMode(), QListView::IconMode);
    QCOMPARE(list->uniformItemSizes(), true);
    // Static movement set before icon mode keeps the items from being dragged around.
    QCOMPARE(list->dragEnabled(), false);
    QCOMPARE(list->acceptDrops(), false);
}

void MainWindowFormTest::textsAndShortcuts_data()
{
    QTest::addColumn<QString>("objectName");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("shortcut");

    QTest::newRow("actionAddFiles") << "actionAddFiles" << "Add &Files" << "Ctrl+O";
    QTest::newRow("actionAddDirectory") << "actionAddDirectory" << "Add &Directory" << "Ctrl+Shift+O";
    QTest::newRow("action") << "action" << "-" << "";
    QTest::newRow("actionQuit") << "actionQuit" << "&Quit" << "Ctrl+Q";
    QTest::newRow("actionRemoveSelected") << "actionRemoveSelected" << "&Remove Selected" << "Del";
    QTest::newRow("actionRemoveAll") << "actionRemoveAll" << "Remove &All" << "Ctrl+Del";
    QTest::newRow("actionCancelProcessing") << "actionCancelProcessing" << "&Cancel Processing" << "Esc";
    QTest::newRow("actionSaveMap") << "actionSaveMap" << "&Save Map" << "Ctrl+S";
    QTest::newRow("actionOpenVideoFile") << "actionOpenVideoFile" << "Open &Video File" << "Return";
    QTest::newRow("actionSaveAllMaps") << "actionSaveAllMaps" << "Save All &Maps" << "Ctrl+Shift+S";
    QTest::newRow("pushButtonSaveAllMap") << "pushButtonSaveAllMap" << "&Save All Maps" << "";
    QTest::newRow("pushButtonAddFiles") << "pushButtonAddFiles" << "&Add Files" << "";
    QTest::newRow("pushButtonCancel") << "pushButtonCancel" << "&Cancel" << "";
    QTest::newRow("pushButtonAddDirectory") << "pushButtonAddDirectory" << "Add &Directory" << "";
    QTest::newRow("menu_File") << "menu_File" << "&File" << "";
}

void MainWindowFormTest::textsAndShortcuts()
{
    QFETCH(QString, objectName);
    QFETCH(QString, text);
    QFETCH(QString, shortcut);

    FormWindow w;
    QObject* object = w.window.findChild<QObject*>(objectName);
    QVERIFY(object);
    if (auto* action = qobject_cast<QAction*>(object)) {
        QCOMPARE(action->text(), text);
        QCOMPARE(action->shortcut(), QKeySequence(shortcut));
        QCOMPARE(action->shortcuts().size(), shortcut.isEmpty() ? 0 : 1);
    } else if (auto* button = qobject_cast<QPushButton*>(object)) {
        QCOMPARE(button->text(), text);
    } else if (auto* menu = qobject_cast<QMenu*>(object)) {
        QCOMPARE(menu->title(), text);
    } else {
        QFAIL("unexpected object type");
    }
}

void MainWindowFormTest::formDisablesNothingAndSetsNoDefaultButton()
{
    FormWindow w;
    for (const QAction* action : w.window.findChildren<QAction*>())
        QVERIFY2(action->isEnabled(), qPrintable(action->objectName()));
    for (const QPushButton* button : w.window.findChildren<QPushButton*>()) {
        QVERIFY2(button->isEnabled(), qPrintable(button->objectName()));
        QVERIFY2(!button->isDefault(), qPrintable(button->objectName()));
    }
    QVERIFY(w.form.mainList->isEnabled());
}

void MainWindowFormTest::retranslateUiFollowsInstalledTranslation()
{
    FormWindow w;
    MainWindowTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    w.form.retranslateUi(&w.window);
    QCoreApplication::removeTranslator(&translator);

    QCOMPARE(w.window.windowTitle(), QStringLiteral("Tremora übersetzt"));
    QCOMPARE(w.form.actionAddFiles->text(), QStringLiteral("Dateien &hinzufügen"));
    QCOMPARE(w.form.actionAddFiles->shortcut(), QKeySequence(QStringLiteral("Ctrl+P")));
    QCOMPARE(w.form.menu_File->title(), QStringLiteral("&Datei"));
    QCOMPARE(w.form.actionQuit->text(), QStringLiteral("&Quit"));
}

void MainWindowFormTest::retranslateUiReappliesTexts()
{
    FormWindow w;
    w.form.actionSaveMap->setText(QStringLiteral("changed"));
    w.form.actionSaveMap->setShortcut(QKeySequence());
    w.form.pushButtonCancel->setText(QStringLiteral("changed"));
    w.window.setWindowTitle(QStringLiteral("changed"));
    w.form.retranslateUi(&w.window);
    QCOMPARE(w.form.actionSaveMap->text(), QStringLiteral("&Save Map"));
    QCOMPARE(w.form.actionSaveMap->shortcut(), QKeySequence(QStringLiteral("Ctrl+S")));
    QCOMPARE(w.form.pushButtonCancel->text(), QStringLiteral("&Cancel"));
    QCOMPARE(w.window.windowTitle(), QStringLiteral("Tremora"));
}

void MainWindowFormTest::slotsAreConnectedByName()
{
    SlotRecorder window;
    Ui_MainWindow form;
    form.setupUi(&window);
    form.actionQuit->trigger();
    form.pushButtonCancel->click();
    form.mainList->addItem(QStringLiteral("row"));
    form.mainList->item(0)->setSelected(true);
    QCOMPARE(window.calls, (QStringList{"quit", "cancel", "selection"}));
}

QTEST_MAIN(MainWindowFormTest)
#include "MainWindowFormTest.moc"
