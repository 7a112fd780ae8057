#include "ReviewWindow.h"

#include "SaleWidgetModel.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QShortcut>

namespace {

constexpr int kLeft = 24;

QString rgba(const QColor &c)
{
    return QStringLiteral("rgba(%1, %2, %3, %4)").arg(c.red()).arg(c.green()).arg(c.blue()).arg(c.alpha());
}

const QList<QPair<QString, QString>> &outcomeFaces()
{
    static const QList<QPair<QString, QString>> faces{
        {QStringLiteral("🙂"), QStringLiteral("Positive")},
        {QStringLiteral("😐"), QStringLiteral("Neutral")},
        {QStringLiteral("🙁"), QStringLiteral("Bad")}};
    return faces;
}

const QList<QPair<QString, QString>> &typeFaces()
{
    static const QList<QPair<QString, QString>> faces{
        {QStringLiteral("😂"), QStringLiteral("Funny")},
        {QStringLiteral("😡"), QStringLiteral("Angry")},
        {QStringLiteral("🥹"), QStringLiteral("Emotional")},
        {QStringLiteral("🤷"), QStringLiteral("Other")}};
    return faces;
}

QColor field()
{
    return QColor::fromRgbF(0.02f, 0.19f, 0.50f, 1.0f);
}

QString faceStyle(bool picked)
{
    // Picked: the blue border on a lighter ground; plain: a faint border on the field colour.
    const QColor border = picked ? SaleWidgetModel::blue() : QColor::fromRgbF(1, 1, 1, 0.2f);
    const QColor ground = picked ? QColor::fromRgbF(0.004f, 0.4f, 0.75f, 1.0f) : field();
    return QStringLiteral("QPushButton { background-color: %1; color: white; border: 2px solid %2; border-radius: 12px;"
                          " font-size: 13px; }")
        .arg(rgba(ground), rgba(border));
}

QLabel *text(QWidget *parent, const QString &t, const QRect &frame, const QString &style)
{
    auto *l = new QLabel(t, parent);
    l->setGeometry(frame);
    l->setStyleSheet(style);
    return l;
}

QString captionStyle()
{
    return QStringLiteral("color: rgba(255, 255, 255, 153); font-size: 11px; font-weight: bold;");
}

} // namespace

ReviewWindow::ReviewWindow(QWidget *parent)
    : QWidget(parent, Qt::Window)
{
    setWindowTitle(QStringLiteral("After-Call Review"));
    setObjectName(QStringLiteral("reviewWindow"));
    new QShortcut(QKeySequence(Qt::Key_Escape), this, this, &ReviewWindow::skipTapped);
    setFixedSize(kWidth, kHeight);
    setStyleSheet(QStringLiteral("QWidget#reviewWindow { background-color: %1; }").arg(rgba(QColor(SaleWidgetModel::navy().rgb()))));
}

QStringList ReviewWindow::outcomes()
{
    QStringList out;
    for (const auto &f : outcomeFaces())
        out.append(f.second);
    return out;
}

QStringList ReviewWindow::types()
{
    QStringList out;
    for (const auto &f : typeFaces())
        out.append(f.second);
    return out;
}

void ReviewWindow::open(OnSave onSave)
{
    m_onSave = std::move(onSave);
    m_outcome.clear();
    m_ctype.clear();
    rebuild();
    m_placement.place(*this, QSize(kWidth, kHeight));
    show();
    raise();
    activateWindow();
}

void ReviewWindow::rebuild()
{
    delete m_body;
    m_outcomeBtns.clear();
    m_typeBtns.clear();
    m_body = new QWidget(this);
    m_body->setGeometry(0, 0, kWidth, kHeight);

    text(m_body, QStringLiteral("How'd the call go?"), QRect(kLeft, 20, 392, 30),
         QStringLiteral("color: white; font-size: 22px; font-weight: bold;"));
    text(m_body, QStringLiteral("OUTCOME"), QRect(kLeft, 66, 392, 16), captionStyle());
    const auto row = [this](const QList<QPair<QString, QString>> &faces, int group, int y, int width, int step) {
        QList<QPushButton *> out;
        for (int i = 0; i < faces.size(); ++i) {
            auto *b = new QPushButton(faces[i].first + QLatin1Char('\n') + faces[i].second, m_body);
            b->setGeometry(kLeft + i * step, y, width, 78);
            b->setStyleSheet(faceStyle(false));
            // The colour emoji font first: other fonts draw some faces (😐, 😂, 😡) as plain outlines.
            QFont face = b->font();
            face.setFamilies({QStringLiteral("Noto Color Emoji"), face.family()});
            b->setFont(face);
            b->setProperty("group", group);
            const QString label = faces[i].second;
            connect(b, &QPushButton::clicked, this, [this, group, label] { pick(group, label); });
            out.append(b);
        }
        return out;
    };
    m_outcomeBtns = row(outcomeFaces(), 0, 88, 128, 136);
    text(m_body, QStringLiteral("TYPE OF CALL"), QRect(kLeft, 186, 392, 16), captionStyle());
    m_typeBtns = row(typeFaces(), 1, 208, 92, 100);
    text(m_body, QStringLiteral("WHY?  (optional — one line)"), QRect(kLeft, 306, 392, 16), captionStyle());
    m_why = new QLineEdit(m_body);
    m_why->setPlaceholderText(QStringLiteral("e.g. Customer cried talking about their son…"));
    m_why->setGeometry(kLeft, 328, 392, 32);
    m_why->setMaxLength(500); // one line
    m_why->setStyleSheet(QStringLiteral("QLineEdit { background-color: %1; color: white; border: 1px solid rgba(255, 255, 255, 64);"
                                        " border-radius: 6px; padding: 0 8px; font-size: 14px; }")
                             .arg(rgba(field())));
    auto *save = new QPushButton(QStringLiteral("Save Tag"), m_body);
    save->setGeometry(kLeft, 440, 250, 48);
    save->setStyleSheet(QStringLiteral("QPushButton { background-color: %1; color: white; border: none; border-radius: 10px;"
                                       " font-size: 16px; font-weight: bold; }")
                            .arg(rgba(SaleWidgetModel::blue())));
    connect(save, &QPushButton::clicked, this, &ReviewWindow::saveTapped);
    auto *skip = new QPushButton(QStringLiteral("Skip"), m_body);
    skip->setGeometry(286, 440, 130, 48);
    skip->setStyleSheet(QStringLiteral("QPushButton { background-color: transparent; color: white; border: 2px solid rgba(255, 255, 255, 90);"
                                       " border-radius: 10px; font-size: 15px; }"));
    connect(skip, &QPushButton::clicked, this, &ReviewWindow::skipTapped);
    m_body->show();
}

void ReviewWindow::pick(int group, const QString &label)
{
    (group == 0 ? m_outcome : m_ctype) = label;
    highlight(group);
}

void ReviewWindow::highlight(int group)
{
    const QString &chosen = group == 0 ? m_outcome : m_ctype;
    const auto &faces = group == 0 ? outcomeFaces() : typeFaces();
    const QList<QPushButton *> &buttons = group == 0 ? m_outcomeBtns : m_typeBtns;
    for (int i = 0; i < buttons.size(); ++i)
        buttons[i]->setStyleSheet(faceStyle(faces[i].second == chosen));
}

void ReviewWindow::saveTapped()
{
    const QString why = m_why ? m_why->text().trimmed() : QString();
    if (m_onSave)
        m_onSave(m_outcome, m_ctype, why);
    hide();
}

void ReviewWindow::skipTapped()
{
    hide();
}
