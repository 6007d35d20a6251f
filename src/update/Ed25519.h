#pragma once

#include <QByteArray>

// Ed25519 signatures through OpenSSL's libcrypto: how a release proves who published it.
// Any thread.
namespace Ed25519 {

// The raw 32-byte key of a PEM public key, or empty when the text holds no Ed25519 public key.
QByteArray publicKeyOfPem(const QByteArray& pem);

// Whether `signature` (64 bytes) is the key's signature of `message`.
bool verify(const QByteArray& publicKey, const QByteArray& message, const QByteArray& signature);

} // namespace Ed25519
