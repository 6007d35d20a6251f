#pragma once

#include <stdexcept>
#include <string>

#include <QString>

// Why a show file could not be read or written; the text is shown to the operator.
class DocumentError : public std::runtime_error {
public:
    explicit DocumentError(const QString& message) : std::runtime_error(message.toStdString()) {}
    QString message() const { return QString::fromStdString(what()); }
};
