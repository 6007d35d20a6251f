#include "app/UpdaterDialogs.h"

#include <QDesktopServices>
#include <QMessageBox>
#include <QPushButton>

UpdaterUi::Choice UpdaterDialogs::offer(const QString& text, bool canSkip) {
    QMessageBox box(QMessageBox::Information, QStringLiteral("アップデート"), text,
                    QMessageBox::NoButton, m_parent);
    QPushButton* install = box.addButton(QStringLiteral("アップデート"), QMessageBox::AcceptRole);
    QPushButton* skip =
        canSkip ? box.addButton(QStringLiteral("この版はスキップ"), QMessageBox::DestructiveRole)
                : nullptr;
    box.addButton(QStringLiteral("あとで"), QMessageBox::RejectRole);
    box.setDefaultButton(install);
    box.exec();
    if (box.clickedButton() == install)
        return Choice::install;
    return skip && box.clickedButton() == skip ? Choice::skip : Choice::later;
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
