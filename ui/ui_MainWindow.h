#pragma once

#include <QAction>
#include <QCoreApplication>
#include <QGridLayout>
#include <QIcon>
#include <QKeySequence>
#include <QListWidget>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QSpacerItem>
#include <QStatusBar>
#include <QVBoxLayout>
#include <QWidget>

// The main window's form, written in the shape of a generated form class so that the
// window's slots reach its objects by Qt's connection-by-name rule: the object names below
// are part of that wiring. Members are non-owning; everything belongs to the window's
// object tree. GUI thread only.
class Ui_MainWindow {
public:
    QAction* actionAddFiles;
    QAction* actionAddDirectory;
    QAction* action;
    QAction* actionQuit;
    QAction* actionRemoveSelected;
    QAction* actionRemoveAll;
    QAction* actionCancelProcessing;
    QAction* actionSaveMap;
    QAction* actionOpenVideoFile;
    QAction* actionSaveAllMaps;
    QWidget* centralwidget;
    QGridLayout* gridLayout_2;
    QVBoxLayout* verticalLayout;
    QGridLayout* gridLayout;
    QSpacerItem* horizontalSpacer;
    QPushButton* pushButtonSaveAllMap;
    QPushButton* pushButtonAddFiles;
    QPushButton* pushButtonCancel;
    QPushButton* pushButtonAddDirectory;
    QListWidget* mainList;
    QMenuBar* menubar;
    QMenu* menu_File;
    QStatusBar* statusbar;

    // Builds every object on `window`, sets the texts and connects the window's
    // on_<object>_<signal> slots. Called once, by the window's constructor.
    void setupUi(QMainWindow* window)
    {
        if (window->objectName().isEmpty())
            window->setObjectName(QString::fromUtf8("MainWindow"));
        window->resize(800, 600);
        window->setMinimumSize(QSize(400, 300));
        QIcon icon;
        icon.addFile(QString::fromUtf8(":/quorl.ico"), QSize(), QIcon::Normal, QIcon::Off);
        window->setWindowIcon(icon);

        createActions(window);
        createCentralWidget(window);

        menubar = new QMenuBar(window);
        menubar->setObjectName(QString::fromUtf8("menubar"));
        menubar->setGeometry(QRect(0, 0, 800, 27));
        menu_File = new QMenu(menubar);
        menu_File->setObjectName(QString::fromUtf8("menu_File"));
        window->setMenuBar(menubar);
        statusbar = new QStatusBar(window);
        statusbar->setObjectName(QString::fromUtf8("statusbar"));
        window->setStatusBar(statusbar);

        fillMenu();
        retranslateUi(window);
        QMetaObject::connectSlotsByName(window);
    }

    // Sets every user-visible text and shortcut through the translation system, so both
    // follow the installed translation. May be called again to re-apply them.
    void retranslateUi(QMainWindow* window)
    {
        window->setWindowTitle(QCoreApplication::translate("MainWindow", "Tremora", nullptr));
        actionAddFiles->setText(QCoreApplication::translate("MainWindow", "Add &Files", nullptr));
        actionAddFiles->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Ctrl+O", nullptr)));
        actionAddDirectory->setText(QCoreApplication::translate("MainWindow", "Add &Directory", nullptr));
        actionAddDirectory->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Ctrl+Shift+O", nullptr)));
        action->setText(QCoreApplication::translate("MainWindow", "-", nullptr));
        actionQuit->setText(QCoreApplication::translate("MainWindow", "&Quit", nullptr));
        actionQuit->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Ctrl+Q", nullptr)));
        actionRemoveSelected->setText(QCoreApplication::translate("MainWindow", "&Remove Selected", nullptr));
        actionRemoveSelected->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Del", nullptr)));
        actionRemoveAll->setText(QCoreApplication::translate("MainWindow", "Remove &All", nullptr));
        actionRemoveAll->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Ctrl+Del", nullptr)));
        actionCancelProcessing->setText(QCoreApplication::translate("MainWindow", "&Cancel Processing", nullptr));
        actionCancelProcessing->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Esc", nullptr)));
        actionSaveMap->setText(QCoreApplication::translate("MainWindow", "&Save Map", nullptr));
        actionSaveMap->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Ctrl+S", nullptr)));
        actionOpenVideoFile->setText(QCoreApplication::translate("MainWindow", "Open &Video File", nullptr));
        actionOpenVideoFile->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Return", nullptr)));
        actionSaveAllMaps->setText(QCoreApplication::translate("MainWindow", "Save All &Maps", nullptr));
        actionSaveAllMaps->setShortcut(QKeySequence(QCoreApplication::translate("MainWindow", "Ctrl+Shift+S", nullptr)));
        pushButtonSaveAllMap->setText(QCoreApplication::translate("MainWindow", "&Save All Maps", nullptr));
        pushButtonAddFiles->setText(QCoreApplication::translate("MainWindow", "&Add Files", nullptr));
        pushButtonCancel->setText(QCoreApplication::translate("MainWindow", "&Cancel", nullptr));
        pushButtonAddDirectory->setText(QCoreApplication::translate("MainWindow", "Add &Directory", nullptr));
        menu_File->setTitle(QCoreApplication::translate("MainWindow", "&File", nullptr));
    }

private:
    static QAction* newAction(QMainWindow* window, const char* name)
    {
        auto* created = new QAction(window);
        created->setObjectName(QString::fromUtf8(name));
        return created;
    }

    static QPushButton* newButton(QWidget* parent, const char* name)
    {
        auto* created = new QPushButton(parent);
        created->setObjectName(QString::fromUtf8(name));
        return created;
    }

    void createActions(QMainWindow* window)
    {
        actionAddFiles = newAction(window, "actionAddFiles");
        actionAddDirectory = newAction(window, "actionAddDirectory");
        // Carried by the form without a place in any menu.
        action = newAction(window, "action");
        actionQuit = newAction(window, "actionQuit");
        actionRemoveSelected = newAction(window, "actionRemoveSelected");
        actionRemoveAll = newAction(window, "actionRemoveAll");
        actionCancelProcessing = newAction(window, "actionCancelProcessing");
        actionSaveMap = newAction(window, "actionSaveMap");
        actionOpenVideoFile = newAction(window, "actionOpenVideoFile");
        actionSaveAllMaps = newAction(window, "actionSaveAllMaps");
    }

    void createCentralWidget(QMainWindow* window)
    {
        centralwidget = new QWidget(window);
        centralwidget->setObjectName(QString::fromUtf8("centralwidget"));
        gridLayout_2 = new QGridLayout(centralwidget);
        gridLayout_2->setObjectName(QString::fromUtf8("gridLayout_2"));
        verticalLayout = new QVBoxLayout();
        verticalLayout->setObjectName(QString::fromUtf8("verticalLayout"));
        gridLayout = new QGridLayout();
        gridLayout->setObjectName(QString::fromUtf8("gridLayout"));

        horizontalSpacer = new QSpacerItem(40, 20, QSizePolicy::Expanding, QSizePolicy::Minimum);
        gridLayout->addItem(horizontalSpacer, 0, 2, 1, 1);
        createButtons();
        verticalLayout->addLayout(gridLayout);

        createList();
        verticalLayout->addWidget(mainList);
        gridLayout_2->addLayout(verticalLayout, 0, 0, 1, 1);
        window->setCentralWidget(centralwidget);
    }

    // Left to right the row reads: Add Files, Add Directory, spacer, Cancel, Save All Maps.
    void createButtons()
    {
        pushButtonSaveAllMap = newButton(centralwidget, "pushButtonSaveAllMap");
        gridLayout->addWidget(pushButtonSaveAllMap, 0, 4, 1, 1);
        pushButtonAddFiles = newButton(centralwidget, "pushButtonAddFiles");
        gridLayout->addWidget(pushButtonAddFiles, 0, 0, 1, 1);
        pushButtonCancel = newButton(centralwidget, "pushButtonCancel");
        gridLayout->addWidget(pushButtonCancel, 0, 3, 1, 1);
        pushButtonAddDirectory = newButton(centralwidget, "pushButtonAddDirectory");
        gridLayout->addWidget(pushButtonAddDirectory, 0, 1, 1, 1);
    }

    // Flow, movement, wrapping and spacing go in before the view mode so that icon mode
    // keeps them: one column of large icons, text under each, items not draggable.
    void createList()
    {
        mainList = new QListWidget(centralwidget);
        mainList->setObjectName(QString::fromUtf8("mainList"));
        mainList->setSelectionMode(QAbstractItemView::ExtendedSelection);
        mainList->setIconSize(QSize(800, 600));
        mainList->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
        mainList->setHorizontalScrollMode(QAbstractItemView::ScrollPerPixel);
        mainList->setMovement(QListView::Static);
        mainList->setFlow(QListView::TopToBottom);
        mainList->setProperty("isWrapping", QVariant(false));
        mainList->setSpacing(16);
        mainList->setViewMode(QListView::IconMode);
        mainList->setUniformItemSizes(true);
    }

    // The menu order (Save Map, Save All Maps, Open Video File) differs from the creation
    // order on purpose.
    void fillMenu()
    {
        menubar->addAction(menu_File->menuAction());
        menu_File->addAction(actionAddFiles);
        menu_File->addAction(actionAddDirectory);
        menu_File->addSeparator();
        menu_File->addAction(actionSaveMap);
        menu_File->addAction(actionSaveAllMaps);
        menu_File->addAction(actionOpenVideoFile);
        menu_File->addSeparator();
        menu_File->addAction(actionCancelProcessing);
        menu_File->addSeparator();
        menu_File->addAction(actionRemoveSelected);
        menu_File->addAction(actionRemoveAll);
        menu_File->addSeparator();
        menu_File->addAction(actionQuit);
    }
};
