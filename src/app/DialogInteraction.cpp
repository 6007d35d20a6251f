#include "app/DialogInteraction.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>

namespace {

const QString kLastFolder = QStringLiteral("dialog/lastFolder");

} // namespace

QString DialogInteraction::startFolder(const std::optional<QString>& showPath) {
    if (showPath && QFileInfo(*showPath).dir().exists())
        return QFileInfo(*showPath).absolutePath();
    const QString last = QSettings().value(kLastFolder).toString();
    return !last.isEmpty() && QDir(last).exists() ? last : QDir::homePath();
}

void DialogInteraction::remember(const QString& chosen) {
    if (!chosen.isEmpty())
        QSettings().setValue(kLastFolder, QFileInfo(chosen).absolutePath());
}

int DialogInteraction::alert(const QString& message, const QString& informative,
                             const QStringList& buttons) {
    QMessageBox box(m_parent);
    box.setIcon(QMessageBox::Warning);
    box.setText(message);
    box.setInformativeText(informative);
    std::vector<QAbstractButton*> added;
    for (qsizetype i = 0; i < buttons.size(); ++i) {
        const bool cancel = i == buttons.size() - 1 && buttons.size() > 1;
        added.push_back(
            box.addButton(buttons[i], cancel ? QMessageBox::RejectRole : QMessageBox::AcceptRole));
    }
    if (!added.empty())
        box.setDefaultButton(qobject_cast<QPushButton*>(added.front()));
    box.exec();
    const auto chosen = std::find(added.begin(), added.end(), box.clickedButton());
    return chosen == added.end() ? static_cast<int>(buttons.size()) - 1
                                 : static_cast<int>(chosen - added.begin());
}

std::optional<QString> DialogInteraction::askName(const QString& title, const QString& current) {
    bool ok = false;
    const QString name =
        QInputDialog::getText(m_parent, title, title, QLineEdit::Normal, current, &ok);
    return ok ? std::optional<QString>(name) : std::nullopt;
}

QStringList DialogInteraction::chooseFiles(const QString& message, const QStringList& types,
                                           bool multiple) {
    QStringList patterns;
    for (const QString& type : types)
        patterns << "*." + type;
    const QString filter = "メディアファイル (" + patterns.join(' ') + ")";
    const QString folder = startFolder(m_showPath ? m_showPath() : std::nullopt);
    const QStringList files =
        multiple ? QFileDialog::getOpenFileNames(m_parent, message, folder, filter)
                 : QStringList{QFileDialog::getOpenFileName(m_parent, message, folder, filter)};
    if (files.value(0).isEmpty())
        return {};
    remember(files.first());
    return files;
}
