#include "model/KeymapDocument.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include "model/JsonRead.h"

namespace {

QJsonObject keysToJson(const std::map<QString, KeyAssignment>& keys) {
    QJsonObject o;
    for (const auto& [code, assignment] : keys)
        o[code] = assignment.toJson();
    return o;
}

std::map<QString, KeyAssignment> keysFromJson(const QJsonValue& value, const QString& field) {
    if (!value.isObject())
        throw JsonRead::wrongType(field);
    std::map<QString, KeyAssignment> keys;
    const QJsonObject o = value.toObject();
    for (auto it = o.begin(); it != o.end(); ++it) {
        if (!it.value().isObject())
            throw JsonRead::wrongType(field);
        keys.emplace(it.key(), KeyAssignment::fromJson(it.value().toObject()));
    }
    return keys;
}

} // namespace

QByteArray KeymapDocument::encode() const {
    QJsonObject o{{"format", format},
                  {"version", static_cast<qint64>(version)},
                  {"keys", keysToJson(keys)},
                  {"masterVolume", masterVolume},
                  {"videoTarget", videoTarget},
                  {"videoOutputs", JsonRead::strings(videoOutputs.value_or(QStringList{}))},
                  {"stopAllFade", stopAllFade}};
    QJsonArray muted;
    for (std::int64_t channel : mutedOutputs.value_or(std::vector<std::int64_t>{}))
        muted.append(static_cast<qint64>(channel));
    o["mutedOutputs"] = muted;
    QJsonArray pageArray;
    for (const PageDocument& page : pages.value_or(std::vector<PageDocument>{}))
        pageArray.append(QJsonObject{{"name", page.name}, {"keys", keysToJson(page.keys)}});
    o["pages"] = pageArray;
    o["currentPage"] = static_cast<qint64>(currentPage.value_or(0));
    if (outputDeviceUID)
        o["outputDeviceUID"] = *outputDeviceUID;
    return QJsonDocument(o).toJson(QJsonDocument::Indented);
}

KeymapDocument KeymapDocument::decode(const QByteArray& bytes) {
    using namespace JsonRead;
    QJsonParseError error{};
    const QJsonDocument json = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !json.isObject())
        throw DocumentError(QStringLiteral("JSON として読めません（%1）").arg(error.errorString()));
    const QJsonObject o = json.object();
    KeymapDocument doc;
    doc.format = requiredString(o, "format");
    if (!o.contains("version"))
        throw missing("version");
    doc.version = integer(o.value("version"), "version");
    if (!o.contains("keys"))
        throw missing("keys");
    doc.keys = keysFromJson(o.value("keys"), "keys");
    doc.outputDeviceUID = optionalString(o, "outputDeviceUID");
    for (const char* required : {"masterVolume", "videoTarget", "stopAllFade"})
        if (!o.contains(required))
            throw missing(required);
    doc.masterVolume = number(o, "masterVolume", 1.0);
    doc.videoTarget = string(o, "videoTarget", {});
    doc.videoOutputs = optionalStrings(o, "videoOutputs");
    doc.stopAllFade = number(o, "stopAllFade", 1.0);
    if (o.contains("mutedOutputs")) {
        if (!o.value("mutedOutputs").isArray())
            throw wrongType("mutedOutputs");
        std::vector<std::int64_t> muted;
        for (const QJsonValue& channel : o.value("mutedOutputs").toArray())
            muted.push_back(integer(channel, "mutedOutputs"));
        doc.mutedOutputs = std::move(muted);
    }
    if (o.contains("pages")) {
        if (!o.value("pages").isArray())
            throw wrongType("pages");
        std::vector<PageDocument> pages;
        for (const QJsonValue& page : o.value("pages").toArray()) {
            if (!page.isObject())
                throw wrongType("pages");
            const QJsonObject p = page.toObject();
            if (!p.contains("keys"))
                throw missing("keys");
            pages.push_back({requiredString(p, "name"), keysFromJson(p.value("keys"), "keys")});
        }
        doc.pages = std::move(pages);
    }
    if (o.contains("currentPage"))
        doc.currentPage = integer(o.value("currentPage"), "currentPage");
    return doc;
}
