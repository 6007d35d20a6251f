#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QFile>
#include <QString>

// Presentation fixtures: a flat OpenDocument presentation written as text (LibreOffice turns it
// into ODP or PPTX for the tests), and zip archives written with libarchive.
namespace Presentations {

using Entries = std::vector<std::pair<QString, QByteArray>>;

// Slides of 28 × 15.75 cm, each white with a block of its colour ("#rrggbb") in the middle;
// the slides whose index (0-based) is in `hidden` are hidden in the show.
inline QByteArray flatOdp(const std::vector<QString>& colours, const std::vector<int>& hidden) {
    QByteArray styles, pages;
    for (std::size_t i = 0; i < colours.size(); ++i) {
        const bool off =
            std::find(hidden.begin(), hidden.end(), static_cast<int>(i)) != hidden.end();
        styles +=
            QString(
                R"(<style:style style:name="g%1" style:family="graphic"><style:graphic-properties draw:fill="solid" draw:fill-color="%2" draw:stroke="none"/></style:style>)")
                .arg(i)
                .arg(colours[i])
                .toUtf8();
        pages +=
            QString(
                R"(<draw:page draw:name="p%1" draw:style-name="%2" draw:master-page-name="Default"><draw:rect draw:style-name="g%3" svg:x="2.8cm" svg:y="1.575cm" svg:width="22.4cm" svg:height="12.6cm"/></draw:page>)")
                .arg(i + 1)
                .arg(off ? "hidden" : "shown")
                .arg(i)
                .toUtf8();
    }
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" xmlns:style="urn:oasis:names:tc:opendocument:xmlns:style:1.0" xmlns:draw="urn:oasis:names:tc:opendocument:xmlns:drawing:1.0" xmlns:presentation="urn:oasis:names:tc:opendocument:xmlns:presentation:1.0" xmlns:svg="urn:oasis:names:tc:opendocument:xmlns:svg-compatible:1.0" xmlns:fo="urn:oasis:names:tc:opendocument:xmlns:xsl-fo-compatible:1.0" office:version="1.3" office:mimetype="application/vnd.oasis.opendocument.presentation">
<office:automatic-styles>
<style:page-layout style:name="PM1"><style:page-layout-properties fo:margin-top="0cm" fo:margin-bottom="0cm" fo:margin-left="0cm" fo:margin-right="0cm" fo:page-width="28cm" fo:page-height="15.75cm"/></style:page-layout>
<style:style style:name="shown" style:family="drawing-page"><style:drawing-page-properties presentation:visibility="visible"/></style:style>
<style:style style:name="hidden" style:family="drawing-page"><style:drawing-page-properties presentation:visibility="hidden"/></style:style>
)" + styles +
           R"(
</office:automatic-styles>
<office:master-styles><style:master-page style:name="Default" style:page-layout-name="PM1"/></office:master-styles>
<office:body><office:presentation>)" +
           pages + R"(</office:presentation></office:body>
</office:document>
)";
}

// A zip archive of the entries in order (deflated).
inline bool writeZip(const QString& path, const Entries& entries) {
    archive* zip = archive_write_new();
    archive_write_set_format_zip(zip);
    bool ok = archive_write_open_filename(zip, QFile::encodeName(path).constData()) == ARCHIVE_OK;
    for (const auto& [name, bytes] : entries) {
        if (!ok)
            break;
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, name.toUtf8().constData());
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        archive_entry_set_size(entry, bytes.size());
        ok = archive_write_header(zip, entry) == ARCHIVE_OK &&
             archive_write_data(zip, bytes.constData(), static_cast<std::size_t>(bytes.size())) ==
                 bytes.size();
        archive_entry_free(entry);
    }
    ok = archive_write_close(zip) == ARCHIVE_OK && ok;
    archive_write_free(zip);
    return ok;
}

} // namespace Presentations
