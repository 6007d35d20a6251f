#pragma once

#include <stdexcept>

#include <QString>

// Why an update step failed, in the words shown to the operator.
class UpdateError : public std::runtime_error {
public:
    explicit UpdateError(const QString& message)
        : std::runtime_error(message.toStdString()), m_message(message) {}
    const QString& message() const { return m_message; }

private:
    QString m_message;
};
