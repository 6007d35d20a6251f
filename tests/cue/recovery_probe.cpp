// Writes recovery copies of a growing show as fast as it can, into the folder argv[1] for the
// show file argv[2], until killed: each copy's only page is named by its number, continuing from
// the copy already there. Prints "ready" once the first copy is written.
#include <cstdio>

#include <QFile>

#include "cue/RecoveryCopy.h"
#include "model/DocumentError.h"
#include "model/KeymapDocument.h"

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    RecoveryCopy copy(QString::fromLocal8Bit(argv[1]), 1);
    const QString show = QString::fromLocal8Bit(argv[2]);
    long number = 0;
    if (const auto found = copy.find()) {
        QFile file(found->copyPath);
        if (!file.open(QIODevice::ReadOnly))
            return 3;
        try {
            number = KeymapDocument::decode(file.readAll()).pages->front().name.toLong();
        } catch (const DocumentError&) {
            return 4; // a damaged copy: the test reads the same file and fails on it
        }
    }
    // Keys enough that a write takes a while and a kill can land inside it.
    PageDocument page;
    for (int key = 0; key < 300; ++key)
        page.keys.emplace(QString::number(key),
                          KeyAssignment(QStringLiteral("/media/cue-%1.wav").arg(key), key));
    for (bool first = true;; first = false) {
        KeymapDocument doc;
        page.name = QString::number(++number);
        doc.pages = std::vector<PageDocument>{page};
        copy.write(doc.encode(), show);
        copy.flush();
        if (copy.takeError())
            return 5;
        if (first) {
            std::puts("ready");
            std::fflush(stdout);
        }
    }
}
