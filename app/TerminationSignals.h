#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM and SIGINT into the Qt signal `received`, delivered on the thread that
// created the object, so that a logout or a `kill` can end the event loop the ordinary way
// and the window's destructor still saves its state and stops its jobs. The handler only
// writes one byte into a socket pair, the one thing that is safe inside a signal handler.
// One instance at a time; create it on the GUI thread after the application object.
class TerminationSignals : public QObject {
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    // Puts the default dispositions back.
    ~TerminationSignals() override;

    // False when the socket pair or the handlers could not be set up; the program then
    // simply keeps the default behaviour of the signals.
    bool isActive() const;

signals:
    void received(int signalNumber);

private:
    void readPending();

    QSocketNotifier* m_notifier = nullptr;
    bool m_handlersInstalled = false;
};
