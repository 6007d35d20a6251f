#include "update/Ed25519.h"

#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>

namespace Ed25519 {

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

} // namespace

QByteArray publicKeyOfPem(const QByteArray& pem) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.constData(), static_cast<int>(pem.size())), &BIO_free);
    if (!bio)
        return {};
    Key key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
    if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519)
        return {};
    QByteArray raw(32, '\0');
    std::size_t length = static_cast<std::size_t>(raw.size());
    if (EVP_PKEY_get_raw_public_key(key.get(), reinterpret_cast<unsigned char*>(raw.data()),
                                    &length) != 1 ||
        length != 32)
        return {};
    return raw;
}

bool verify(const QByteArray& publicKey, const QByteArray& message, const QByteArray& signature) {
    if (publicKey.size() != 32 || signature.size() != 64)
        return false;
    Key key(EVP_PKEY_new_raw_public_key(
                EVP_PKEY_ED25519, nullptr,
                reinterpret_cast<const unsigned char*>(publicKey.constData()), 32),
            &EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free);
    if (!key || !context ||
        EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return false;
    return EVP_DigestVerify(context.get(),
                            reinterpret_cast<const unsigned char*>(signature.constData()),
                            static_cast<std::size_t>(signature.size()),
                            reinterpret_cast<const unsigned char*>(message.constData()),
                            static_cast<std::size_t>(message.size())) == 1;
}

} // namespace Ed25519
