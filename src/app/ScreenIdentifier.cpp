#include "app/ScreenIdentifier.h"

#include <QGuiApplication>
#include <QLabel>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>

#include "video/ScreenList.h"

namespace ScreenIdentifier {

void show() {
    const ScreenList screens = ScreenList::current();
    const QList<QScreen*> qtScreens = ScreenList::qtScreens();
    for (int i = 0; i < qtScreens.size(); ++i) {
        auto* overlay =
            new QWidget(nullptr, Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                                     Qt::WindowDoesNotAcceptFocus | Qt::WindowTransparentForInput |
                                     Qt::BypassWindowManagerHint);
        overlay->setAttribute(Qt::WA_DeleteOnClose);
        overlay->setAttribute(Qt::WA_TranslucentBackground);
        overlay->setStyleSheet("background: rgba(0, 0, 0, 140); color: white;");
        auto* column = new QVBoxLayout(overlay);
        auto* number = new QLabel(QString::number(i + 1), overlay);
        number->setObjectName("number");
        number->setStyleSheet("font-size: 260pt; background: transparent;");
        number->setAlignment(Qt::AlignCenter);
        const ScreenList::Screen& screen = screens.screens().at(static_cast<std::size_t>(i));
        auto* name = new QLabel(QStringLiteral("%1（%2×%3）")
                                    .arg(screen.name)
                                    .arg(screen.geometry.width())
                                    .arg(screen.geometry.height()),
                                overlay);
        name->setStyleSheet("font-size: 36pt; background: transparent;");
        name->setAlignment(Qt::AlignCenter);
        column->addStretch();
        column->addWidget(number);
        column->addWidget(name);
        column->addStretch();
        overlay->setGeometry(qtScreens[i]->geometry());
        overlay->show();
        QTimer::singleShot(kShownMilliseconds, overlay, &QWidget::close);
    }
}

} // namespace ScreenIdentifier
