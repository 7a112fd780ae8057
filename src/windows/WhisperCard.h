#pragma once

#include <QObject>
#include <QRect>
#include <QString>
#include <QTimer>

class QWebEngineProfile;
class QWebEngineView;

// The coach's whisper card: a page in a web view inside a transparent, click-through, frameless
// window kept above the others on every workspace, at the top centre of the primary screen for
// hideMs after the latest whisper. The browser engine is costly, so the view is made at the first
// whisper and released releaseMs after the last card went away. Page scripts never run; the page
// is measured from an isolated script world. Without a compositor the window is cut to the card's
// shape. A page that does not render is logged, kept as note() and its card taken away. Main
// thread only.
class WhisperCard : public QObject
{
    Q_OBJECT
public:
    explicit WhisperCard(QObject *parent = nullptr);
    ~WhisperCard() override;

    /// Before the application object exists: the browser engine will not start inside its sandbox
    /// as root and would end the whole agent at the first whisper, so as root it is told to run
    /// without one. Returns the note for the log ("" when nothing was changed).
    static QString prepareEngine(bool root);

    /// Shows (or replaces) the card for a message from this seat and sender.
    void show(const QString &text, int seat, const QString &from);
    /// Takes the card off the screen.
    void dismiss();

    /// Whether the card is on the screen.
    bool visible() const;
    /// The web view while it exists (the card's window), else null.
    QWebEngineView *view() const { return m_view; }
    /// Where the card was last placed.
    QRect frame() const { return m_frame; }
    /// Why the last card could not be shown, until a card is shown again ("" when none).
    QString note() const { return m_note; }

    /// How long a card stays, in milliseconds (9 s).
    int hideMs = 9000;
    /// How long the web view is kept after the last card went away, in milliseconds (a minute).
    int releaseMs = 60000;

Q_SIGNALS:
    /// The card was measured and placed at `frame` and is on the screen.
    void placed(const QRect &frame);
    /// The card went off the screen.
    void hidden();
    /// The web view was released.
    void released();

private:
    void build();
    void release();
    void measured(quint64 generation, const QVariant &answer);
    void failed(const QString &why);

    QWebEngineProfile *m_profile = nullptr;
    QWebEngineView *m_view = nullptr;
    QString m_picture;
    QTimer m_hide;
    QTimer m_release;
    QRect m_frame;
    quint64 m_generation = 0;
    quint64 m_failed = 0; // the generation whose failure was told
    QString m_note;
};
