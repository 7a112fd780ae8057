#pragma once

#include "FirstPlacement.h"

#include <QLineEdit>
#include <QList>
#include <QPointer>
#include <QPushButton>
#include <QString>
#include <QWidget>

#include <functional>

// The small window after a call in which the agent tags it: outcome, type of call and an optional
// one-line reason. Every showing starts with nothing picked; Save hands the three texts to the
// action given at show (a group left unpicked is sent as empty text), Skip hands nothing. Reused
// between calls. Main thread only.
class ReviewWindow : public QWidget
{
    Q_OBJECT
public:
    /// What Save hands on: outcome, type of call, reason.
    using OnSave = std::function<void(const QString &outcome, const QString &ctype, const QString &why)>;

    explicit ReviewWindow(QWidget *parent = nullptr);

    /// Opens the window with nothing picked, in front; Save calls `onSave`.
    void open(OnSave onSave);
    /// Picks the face with this label in its group (0 outcome, 1 type).
    void pick(int group, const QString &label);
    /// The Save button: hands on the choice and closes.
    void saveTapped();
    /// The Skip button: closes without handing anything on.
    void skipTapped();

    /// The labels of the outcome faces and of the type faces, in order.
    static QStringList outcomes();
    static QStringList types();
    /// The face buttons of a group (0 outcome, 1 type) and the reason field, as built.
    QList<QPushButton *> faces(int group) const { return group == 0 ? m_outcomeBtns : m_typeBtns; }
    QLineEdit *whyField() const { return m_why; }
    /// The current choice.
    QString outcome() const { return m_outcome; }
    QString ctype() const { return m_ctype; }

    /// Content size of the window.
    static constexpr int kWidth = 440;
    static constexpr int kHeight = 520;

private:
    void rebuild();
    void highlight(int group);

    OnSave m_onSave;
    QWidget *m_body = nullptr;
    QList<QPushButton *> m_outcomeBtns;
    QList<QPushButton *> m_typeBtns;
    QPointer<QLineEdit> m_why;
    QString m_outcome;
    QString m_ctype;
    FirstPlacement m_placement;
};
