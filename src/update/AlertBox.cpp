#include "AlertBox.h"

#include <QAbstractButton>
#include <QGridLayout>
#include <QMessageBox>
#include <QPushButton>

namespace AlertBox {

QMessageBox *show(const Alert &alert, std::function<void(int)> answer)
{
    auto *box = new QMessageBox(alert.critical ? QMessageBox::Critical : QMessageBox::Information,
                                QStringLiteral("Brava Recorder"), alert.message);
    box->setInformativeText(alert.informative);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::ApplicationModal);
    QList<QAbstractButton *> buttons;
    for (qsizetype i = 0; i < alert.buttons.size(); ++i) {
        // The first button goes ahead; a second one is the way out.
        const auto role = i == 0 ? QMessageBox::AcceptRole : QMessageBox::RejectRole;
        QPushButton *b = box->addButton(alert.buttons[i], role);
        if (i == alert.defaultButton)
            box->setDefaultButton(b);
        buttons.append(b);
    }
    QObject::connect(box, &QMessageBox::finished, box, [box, buttons, answer = std::move(answer)] {
        if (answer)
            answer(int(buttons.indexOf(box->clickedButton())));
    });
    // A message box takes the width of its main text, which for a short one cuts the window's title
    // and wraps the informative text into many short lines: a spacer across the box keeps it wider.
    if (auto *grid = qobject_cast<QGridLayout *>(box->layout()))
        grid->addItem(new QSpacerItem(kMinWidth, 0, QSizePolicy::Fixed, QSizePolicy::Fixed), grid->rowCount(), 0, 1, grid->columnCount());
    box->show();
    box->raise();
    box->activateWindow();
    return box;
}

} // namespace AlertBox
