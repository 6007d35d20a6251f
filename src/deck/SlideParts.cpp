#include "deck/SlideParts.h"

#include <map>
#include <pugixml.hpp>
#include <set>

#include <QDir>

#include "deck/DeckError.h"
#include "deck/SlideArchive.h"

namespace SlideParts {

namespace {

// Plain parsing: entity declarations of the file are never expanded (no external entities,
// no entity bombs), only the five of XML itself.
pugi::xml_document parse(const QByteArray& part) {
    pugi::xml_document xml;
    if (!xml.load_buffer(part.constData(), static_cast<std::size_t>(part.size()),
                         pugi::parse_default & ~pugi::parse_doctype))
        throw DeckError(DeckError::kUnreadable);
    return xml;
}

QString text(const pugi::char_t* value) {
    return QString::fromUtf8(value);
}

// The value of the attribute with this local name (whatever its prefix), or of `fallback`.
QString attribute(const pugi::xml_node& node, const char* localName) {
    for (const pugi::xml_attribute& a : node.attributes()) {
        const QString name = text(a.name());
        if (name == localName || name.section(':', -1) == localName)
            return text(a.value());
    }
    return {};
}

// A relationship's target as an archive entry name, from the folder of the part it belongs to.
QString resolve(const QString& folder, const QString& target) {
    if (target.startsWith('/'))
        return QDir::cleanPath(target.mid(1));
    return QDir::cleanPath(folder + '/' + target);
}

QString folderOf(const QString& part) {
    return part.section('/', 0, -2);
}

QString relsOf(const QString& part) {
    return folderOf(part) + QStringLiteral("/_rels/") + part.section('/', -1) +
           QStringLiteral(".rels");
}

} // namespace

std::vector<Relationship> relationships(const QByteArray& part) {
    std::vector<Relationship> list;
    const pugi::xml_document xml = parse(part);
    for (const pugi::xpath_node& found : xml.select_nodes("//*[local-name()='Relationship']")) {
        const pugi::xml_node node = found.node();
        list.push_back({text(node.attribute("Id").value()), text(node.attribute("Type").value()),
                        text(node.attribute("Target").value()),
                        text(node.attribute("TargetMode").value()) == "External"});
    }
    return list;
}

std::vector<SlideMeta> pptxSlides(const QString& pptx) {
    std::set<QString> entries;
    const auto parts = SlideArchive::readParts(pptx, [&](const QString& name) {
        entries.insert(name);
        return name.startsWith("ppt/") && (name.endsWith(".xml") || name.endsWith(".rels"));
    });
    const auto part = [&](const QString& name) -> const QByteArray* {
        const auto found = parts.find(name);
        return found == parts.end() ? nullptr : &found->second;
    };
    const QByteArray* presentation = part("ppt/presentation.xml");
    const QByteArray* presentationRels = part("ppt/_rels/presentation.xml.rels");
    if (!presentation || !presentationRels)
        throw DeckError(DeckError::kUnreadable);
    std::map<QString, Relationship> byID;
    for (const Relationship& r : relationships(*presentationRels))
        byID.emplace(r.id, r);

    std::vector<SlideMeta> slides;
    const pugi::xml_document list = parse(*presentation);
    for (const pugi::xpath_node& found : list.select_nodes("//*[local-name()='sldId']")) {
        SlideMeta meta;
        // The slide's relationship id is its prefixed "id" (r:id); the plain "id" is a number.
        QString relationship;
        for (const pugi::xml_attribute& a : found.node().attributes()) {
            const QString name = text(a.name());
            if (name.contains(':') && name.section(':', -1) == "id")
                relationship = text(a.value());
        }
        const auto target = byID.find(relationship);
        const QString slidePart = target == byID.end() || target->second.external
                                      ? QString()
                                      : resolve("ppt", target->second.target);
        if (const QByteArray* slide = part(slidePart)) {
            meta.skipped = text(parse(*slide).document_element().attribute("show").value()) == "0";
            if (const QByteArray* rels = part(relsOf(slidePart))) {
                for (const Relationship& r : relationships(*rels)) {
                    const bool media = r.type.endsWith("/video") || r.type.endsWith("/audio") ||
                                       r.type.endsWith("/media");
                    const QString file = resolve(folderOf(slidePart), r.target);
                    // PowerPoint links a movie twice (as video and as media): once per slide.
                    if (media && !r.external && entries.count(file) && !meta.media.contains(file))
                        meta.media << file;
                }
            }
        }
        slides.push_back(std::move(meta));
    }
    return slides;
}

std::vector<SlideMeta> odpSlides(const QString& odp) {
    std::set<QString> entries;
    const auto parts = SlideArchive::readParts(odp, [&](const QString& name) {
        entries.insert(name);
        return name == "content.xml" || name == "styles.xml";
    });
    const auto content = parts.find("content.xml");
    if (content == parts.end())
        throw DeckError(DeckError::kUnreadable);
    const pugi::xml_document xml = parse(content->second);
    // Page styles that hide their pages (automatic styles of the content, or the styles part).
    std::set<QString> hiddenStyles;
    const auto collect = [&](const pugi::xml_document& doc) {
        for (const pugi::xpath_node& found :
             doc.select_nodes("//*[local-name()='drawing-page-properties']")) {
            if (attribute(found.node(), "visibility") == "hidden")
                hiddenStyles.insert(attribute(found.node().parent(), "name"));
        }
    };
    collect(xml);
    if (const auto styles = parts.find("styles.xml"); styles != parts.end())
        collect(parse(styles->second));

    std::vector<SlideMeta> slides;
    for (const pugi::xpath_node& found :
         xml.select_nodes("//*[local-name()='presentation']/*[local-name()='page']")) {
        const pugi::xml_node page = found.node();
        SlideMeta meta;
        meta.skipped = attribute(page, "visibility") == "hidden" ||
                       hiddenStyles.count(attribute(page, "style-name")) > 0;
        for (const pugi::xpath_node& plugin : page.select_nodes(".//*[local-name()='plugin']")) {
            const QString href = attribute(plugin.node(), "href");
            const QString file = QDir::cleanPath(href.startsWith("./") ? href.mid(2) : href);
            if (entries.count(file) && !meta.media.contains(file))
                meta.media << file; // embedded; a linked file outside the package is passed over
        }
        slides.push_back(std::move(meta));
    }
    return slides;
}

} // namespace SlideParts
