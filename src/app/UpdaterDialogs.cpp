#include "app/UpdaterDialogs.h"

#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

UpdaterUi::Choice UpdaterDialogs::offer(const QString& text, bool canSkip) {
    // The release notes may be long: the first line stands above them, they scroll in a box of
    // bounded height, so the dialog fits any screen.
    QDialog box(m_parent);
    box.setWindowTitle(QStringLiteral("アップデート"));
    auto* layout = new QVBoxLayout(&box);
    layout->addWidget(new QLabel(text.section('\n', 0, 0), &box));
    auto* notes = new QPlainTextEdit(text.section('\n', 1).trimmed(), &box);
    notes->setReadOnly(true);
    notes->setMinimumWidth(440);
    notes->setMaximumHeight(240);
    layout->addWidget(notes);
    auto* buttons = new QDialogButtonBox(&box);
    QPushButton* install =
        buttons->addButton(QStringLiteral("アップデート"), QDialogButtonBox::AcceptRole);
    QPushButton* skip = canSkip ? buttons->addButton(QStringLiteral("この版はスキップ"),
                                                     QDialogButtonBox::DestructiveRole)
                                : nullptr;
    buttons->addButton(QStringLiteral("あとで"), QDialogButtonBox::RejectRole);
    layout->addWidget(buttons);
    install->setDefault(true);
    QAbstractButton* clicked = nullptr;
    QObject::connect(buttons, &QDialogButtonBox::clicked, &box, [&](QAbstractButton* button) {
        clicked = button;
        box.done(0);
    });
    box.exec();
    if (clicked == install)
        return Choice::install;
    return skip && clicked == skip ? Choice::skip : Choice::later;
}

void UpdaterDialogs::alert(const QString& title, const QString& text) {
    QMessageBox::information(m_parent, title, text);
}

bool UpdaterDialogs::askForDownloadPage(const QString& title, const QString& text) {
    QMessageBox box(QMessageBox::Warning, title, text, QMessageBox::NoButton, m_parent);
    QPushButton* page =
        box.addButton(QStringLiteral("ダウンロードページを開く"), QMessageBox::AcceptRole);
    box.addButton(QStringLiteral("閉じる"), QMessageBox::RejectRole);
    box.exec();
    return box.clickedButton() == page;
}

void UpdaterDialogs::openPage(const QUrl& page) {
    QDesktopServices::openUrl(page);
}

void UpdaterDialogs::showProgress(double fraction) {
    if (!m_progress) {
        m_progress = new QProgressDialog(QStringLiteral("ダウンロード中…"), QStringLiteral("中止"),
                                         0, 1000, m_parent);
        m_progress->setWindowTitle(QStringLiteral("アップデート"));
        m_progress->setAttribute(Qt::WA_DeleteOnClose);
        m_progress->setMinimumDuration(0);
        QObject::connect(m_progress, &QProgressDialog::canceled, [cancel = m_cancel] { cancel(); });
        m_progress->show();
    }
    // An unknown size shows a busy bar.
    m_progress->setMaximum(fraction < 0.0 ? 0 : 1000);
    if (fraction >= 0.0)
        m_progress->setValue(static_cast<int>(fraction * 1000.0));
}

void UpdaterDialogs::hideProgress() {
    if (m_progress)
        m_progress->close();
}
