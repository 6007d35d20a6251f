#include "model/KeymapDocument.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include "model/JsonRead.h"
#include "model/KeyboardLayout.h"
#include "model/ShowFile.h"
#include "model/ValueRanges.h"

namespace {

QJsonObject keysToJson(const std::map<QString, KeyAssignment>& keys) {
    QJsonObject o;
    for (const auto& [code, assignment] : keys)
        o[code] = assignment.toJson();
    return o;
}

// Where in the file a key's problem is: the page (when there are pages) and the key as drawn.
QString keyPlace(const std::optional<QString>& page, const QString& key) {
    const auto code = ShowFile::keyCode(key);
    const QString name =
        code ? QStringLiteral("キー %1（%2）").arg(KeyboardLayout::label(*code), key)
             : QStringLiteral("キー「%1」").arg(key);
    return page ? QStringLiteral("ページ「%1」の%2").arg(*page, name) : name;
}

std::map<QString, KeyAssignment> keysFromJson(const QJsonValue& value, const QString& field,
                                              const std::optional<QString>& page) {
    if (!value.isObject())
        throw JsonRead::wrongType(field);
    std::map<QString, KeyAssignment> keys;
    const QJsonObject o = value.toObject();
    for (auto it = o.begin(); it != o.end(); ++it) {
        try {
            if (!it.value().isObject())
                throw JsonRead::wrongType(field);
            keys.emplace(it.key(), KeyAssignment::fromJson(it.value().toObject()));
        } catch (const DocumentError& error) {
            throw DocumentError(keyPlace(page, it.key()) + QStringLiteral(": ") + error.message());
        }
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
    if (!midiBindings.empty()) {
        QJsonArray bindings;
        for (const MidiBinding& binding : midiBindings)
            bindings.append(binding.toJson());
        o["midiBindings"] = bindings;
    }
    return QJsonDocument(o).toJson(QJsonDocument::Indented);
}

KeymapDocument KeymapDocument::decode(const QByteArray& bytes) {
    using namespace JsonRead;
    QJsonParseError error{};
    const QJsonDocument json = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        throw DocumentError(QStringLiteral("JSON として読めません（%1、%2 バイト目）")
                                .arg(error.errorString())
                                .arg(error.offset));
    if (!json.isObject())
        throw DocumentError(QStringLiteral("キーマップの形式ではありません（JSON のオブジェクト"
                                           "ではありません）"));
    const QJsonObject o = json.object();
    KeymapDocument doc;
    doc.format = requiredString(o, "format");
    if (!o.contains("version"))
        throw missing("version");
    doc.version = integer(o.value("version"), "version");
    if (!o.contains("keys"))
        throw missing("keys");
    doc.keys = keysFromJson(o.value("keys"), "keys", std::nullopt);
    doc.outputDeviceUID = optionalString(o, "outputDeviceUID");
    for (const char* required : {"masterVolume", "videoTarget", "stopAllFade"})
        if (!o.contains(required))
            throw missing(required);
    doc.masterVolume = number(o, "masterVolume", 1.0, 0.0, ValueRanges::kMaxMasterVolume);
    doc.videoTarget = string(o, "videoTarget", {});
    doc.videoOutputs = optionalStrings(o, "videoOutputs");
    doc.stopAllFade = number(o, "stopAllFade", 1.0, 0.0, ValueRanges::kMaxStopAllFade);
    if (o.contains("mutedOutputs")) {
        if (!o.value("mutedOutputs").isArray())
            throw wrongType("mutedOutputs");
        std::vector<std::int64_t> muted;
        for (const QJsonValue& channel : o.value("mutedOutputs").toArray()) {
            muted.push_back(integer(channel, "mutedOutputs"));
            if (muted.back() < 1 || muted.back() > ValueRanges::kMaxOutput)
                throw outOfRange("mutedOutputs", 1, ValueRanges::kMaxOutput);
        }
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
            const QString name = requiredString(p, "name");
            pages.push_back({name, keysFromJson(p.value("keys"), "keys", name)});
        }
        doc.pages = std::move(pages);
    }
    if (o.contains("currentPage"))
        doc.currentPage = integer(o.value("currentPage"), "currentPage");
    if (o.contains("midiBindings")) {
        if (!o.value("midiBindings").isArray())
            throw wrongType("midiBindings");
        for (const QJsonValue& binding : o.value("midiBindings").toArray()) {
            if (!binding.isObject())
                throw wrongType("midiBindings");
            doc.midiBindings.push_back(MidiBinding::fromJson(binding.toObject()));
        }
    }
    return doc;
}
