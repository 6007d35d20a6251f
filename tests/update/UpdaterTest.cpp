#include "update/Updater.h"

#include <archive.h>
#include <archive_entry.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QProcess>
#include <QTimer>

#include "Files.h"
#include "Sanitizer.h"
#include "TempDir.h"
#include "TestServer.h"
#include "Wait.h"
#include "model/Prefs.h"
#include "update/Ed25519.h"
#include "update/ReleaseArchive.h"
#include "update/ReleaseManifest.h"
#include "update/ReleaseVerifier.h"
#include "update/UpdateError.h"

namespace {

// Runs a program to its end; its standard output, or a failed test.
QByteArray run(const QString& program, const QStringList& args) {
    QProcess process;
    process.setWorkingDirectory(VORLIN_SOURCE_DIR);
    process.start(program, args);
    process.waitForFinished(120000);
    EXPECT_EQ(process.exitCode(), 0)
        << program.toStdString() << " " << args.join(' ').toStdString() << "\n"
        << process.readAllStandardError().toStdString();
    return process.readAllStandardOutput().trimmed();
}

using Files::read;

void writeFile(const QString& path, const QByteArray& bytes) {
    ASSERT_TRUE(Files::write(path, bytes));
}

// Every file of a tree with its bytes, to tell whether anything changed.
std::map<QString, QByteArray> snapshot(const QString& root) {
    std::map<QString, QByteArray> files;
    QDirIterator walk(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        files[QDir(root).relativeFilePath(path)] = read(path);
    }
    return files;
}

const QString kFailed = QStringLiteral("アップデートできませんでした: ");

int updateFolders() {
    return static_cast<int>(
        QDir::temp().entryList({QStringLiteral("vorlin-update-*")}, QDir::Dirs).size());
}

// The dialogs, answered from the test.
struct ScriptedUi : UpdaterUi {
    Choice answer = Choice::later;
    bool wantsPage = false;
    bool cancelsDownload = false;
    Updater* updater = nullptr;
    QStringList offers, alerts, refusals;
    QList<QUrl> pages;

    Choice offer(const QString& text, bool) override {
        offers << text;
        return answer;
    }
    void alert(const QString& title, const QString& text) override {
        alerts << title + ": " + text;
    }
    bool askForDownloadPage(const QString&, const QString& text) override {
        refusals << text;
        return wantsPage;
    }
    void openPage(const QUrl& page) override { pages << page; }
    bool progressShown = false;
    void showProgress(double) override {
        progressShown = true;
        if (cancelsDownload && updater)
            QTimer::singleShot(300, updater, [this] { updater->cancelDownload(); });
        cancelsDownload = false;
    }
    void hideProgress() override { progressShown = false; }
};

// Release archives made once by scripts/make-release from this build's install tree: 0.2.0
// (build 2) signed by the trusted key, the same by another key, and 0.1.0 (build 1); and,
// repacked from the first, a tampered program, an extra file, a "../" entry, a link out, a
// program that cannot be run and a link in, signed.
struct Archives {
    TempDir dir;
    QByteArray trustedKey;
    std::map<QString, QByteArray> bytes;

    QString path(const std::string& name) const { return QString::fromStdString(dir.file(name)); }
    QString key(const std::string& name) {
        const QString pem = path(name + ".pem");
        run("openssl", {"genpkey", "-algorithm", "ed25519", "-out", pem});
        return pem;
    }
    QString release(const QString& keyPem, const QString& version, int build) {
        return QString::fromUtf8(
            run("scripts/make-release",
                {"--version", version, "--build", QString::number(build), VORLIN_BUILD_DIR, keyPem,
                 path("out-" + version.toStdString() + "-" + std::to_string(build) +
                      keyPem.right(6).toStdString())}));
    }
    // Unpacks the good archive, lets `change` work on the unpacked folder (its tree is
    // "vorlin"), and packs what `paths` names (relative to the folder) again.
    QByteArray repacked(const QString& name, const std::function<void(const QString&)>& change,
                        const QStringList& paths = {"vorlin"}) {
        const QString folder = path(name.toStdString());
        QDir().mkpath(folder);
        run("tar", {"-C", folder, "--zstd", "-xf", path("good.tar.zst")});
        change(folder);
        const QString archive = folder + ".tar.zst";
        run("tar", QStringList{"-C", folder, "--zstd", "-cPf", archive} + paths);
        return read(archive);
    }

    Archives() {
        const QString trusted = key("trusted");
        trustedKey = Ed25519::publicKeyOfPem(run("openssl", {"pkey", "-in", trusted, "-pubout"}));
        QFile::copy(release(trusted, "0.2.0", 2), path("good.tar.zst"));
        bytes["good"] = read(path("good.tar.zst"));
        bytes["other key"] = read(release(key("other"), "0.2.0", 2));
        bytes["replayed"] = read(release(trusted, "0.1.0", 1));
        bytes["other version"] = read(release(trusted, "0.2.1", 2)); // the build the feed names
        bytes["tampered"] = repacked("tampered", [](const QString& folder) {
            QFile program(folder + "/vorlin/bin/vorlin");
            program.open(QIODevice::Append);
            program.write("!");
        });
        bytes["extra"] = repacked("extra", [](const QString& folder) {
            writeFile(folder + "/vorlin/share/extra.txt", "more");
        });
        bytes["parent"] = repacked(
            "parent/inner", [](const QString& folder) { writeFile(folder + "/../evil", "x"); },
            {"vorlin", "../evil"});
        // The program changed and its line in the manifest made to match, not signed again.
        bytes["edited"] = repacked("edited", [](const QString& folder) {
            const QByteArray program = read(folder + "/vorlin/bin/vorlin") + "!";
            writeFile(folder + "/vorlin/bin/vorlin", program);
            QList<QByteArray> lines = read(folder + "/vorlin/MANIFEST").split('\n');
            for (QByteArray& line : lines)
                if (line.endsWith(" bin/vorlin")) {
                    QList<QByteArray> parts = line.split(' ');
                    parts[1] =
                        QCryptographicHash::hash(program, QCryptographicHash::Sha256).toHex();
                    parts[2] = QByteArray::number(program.size());
                    line = parts.join(' ');
                }
            writeFile(folder + "/vorlin/MANIFEST", lines.join('\n'));
        });
        bytes["link"] = repacked("link", [](const QString& folder) {
            QFile::link("/etc", folder + "/vorlin/share/etc");
        });
        // The program's bytes as signed, but no longer executable.
        bytes["mode"] = repacked("mode", [](const QString& folder) {
            QFile::setPermissions(folder + "/vorlin/bin/vorlin",
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup);
        });
        // A link beside the program to it, listed as a file of the program's bytes and the
        // link's size and mode, and signed again by the trusted key: still no plain file.
        bytes["signed link"] = repacked("signed-link", [&](const QString& folder) {
            const QString tree = folder + "/vorlin";
            QFile::link("vorlin", tree + "/bin/alias");
            const QByteArray sha =
                QCryptographicHash::hash(read(tree + "/bin/vorlin"), QCryptographicHash::Sha256);
            writeFile(tree + "/MANIFEST",
                      read(tree + "/MANIFEST") + "file " + sha.toHex() + " 6 777 bin/alias\n");
            run("scripts/sign-release", {trusted, tree});
        });
    }
};

class UpdaterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { archives = new Archives; }
    static void TearDownTestSuite() { delete archives; }

    void SetUp() override {
        // Work folders go here, where no other test process makes any.
        QDir().mkpath(QString::fromStdString(dir.file("tmp")));
        tmp = qgetenv("TMPDIR");
        qputenv("TMPDIR", dir.file("tmp").c_str());
        Prefs::registerDefaults();
        Prefs::remove(QStringLiteral("update.skippedBuild"));
        root = QString::fromStdString(dir.file("installed/vorlin"));
        writeFile(root + "/VERSION", "0.1.0 1\n");
        writeFile(root + "/bin/vorlin", "#!/bin/sh\necho old\n");
        installed = snapshot(root);
        server.routes["/good.tar.zst"] = {archives->bytes.at("good")};
        setFeed("0.2.0", 2, "/good.tar.zst");
    }

    void TearDown() override {
        if (tmp.isEmpty())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", tmp);
    }

    void setFeed(const QString& version, int build, const QString& archive,
                 const QJsonObject& more = {}) {
        QJsonObject feed = more;
        feed["version"] = version;
        feed["build"] = build;
        feed["url"] = server.url("/notes");
        feed["zip"] = server.url(archive);
        feed["page"] = server.url("/download");
        server.routes["/version.json"] = {QJsonDocument(feed).toJson()};
    }

    Updater::Options options() const {
        Updater::Options o;
        o.feed = QUrl(server.url("/version.json"));
        o.installRoot = root;
        o.currentVersion = "0.1.0";
        o.currentBuild = 1;
        o.trustedKey = archives->trustedKey;
        o.systemVersion = "12";
        return o;
    }

    // How many offers one check asked for by hand makes.
    qsizetype offersOfACheck(Updater& updater) {
        const qsizetype before = ui.offers.size();
        check(updater, true);
        return ui.offers.size() - before;
    }

    // Runs one check (or install) to its end.
    void check(Updater& updater, bool userInitiated) {
        QEventLoop loop;
        QObject::connect(&updater, &Updater::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(60000, &loop, &QEventLoop::quit);
        ui.updater = &updater;
        updater.check(userInitiated);
        loop.exec();
    }

    static Archives* archives;
    QByteArray tmp;
    TempDir dir;
    TestServer server;
    ScriptedUi ui;
    QString root;
    std::map<QString, QByteArray> installed;
};

Archives* UpdaterTest::archives = nullptr;

// A higher build is newer whatever the versions say; at the same build the versions are compared
// part by part as numbers, to the longer of the two, a missing part reading as 0.
TEST(Release, NewerByBuildThenByVersionPartsAsNumbers) {
    const std::tuple<const char*, int, const char*, int, bool> rows[] = {
        {"1.0", 8, "2.0", 7, true},    {"2.0", 6, "1.0", 7, false},  {"1.10", 7, "1.9", 7, true},
        {"1.9", 7, "1.10", 7, false},  {"1.2.1", 7, "1.2", 7, true}, {"1.2", 7, "1.2.1", 7, false},
        {"1.2.0", 7, "1.2", 7, false}, {"1.2", 7, "1.2", 7, false},  {"0.1", 7, "0.0.9", 7, true},
    };
    for (const auto& [version, build, currentVersion, currentBuild, newer] : rows) {
        Release release;
        release.version = version;
        release.build = build;
        EXPECT_EQ(release.isNewer(currentVersion, currentBuild), newer)
            << version << " (" << build << ") against " << currentVersion << " (" << currentBuild
            << ")";
    }
}

// A feed's release needs a version, a whole build number and an archive.
TEST(Release, AFeedWithoutAVersionAWholeBuildOrAnArchiveOffersNothing) {
    const std::pair<const char*, bool> rows[] = {
        {R"({"version": "1.2", "build": 7, "zip": "/a.tar.zst"})", true},
        {R"({"version": "1.2", "build": 7.0, "zip": "/a.tar.zst", "notes": ["x"]})", true},
        {R"({"build": 7, "zip": "/a.tar.zst"})", false},
        {R"({"version": "", "build": 7, "zip": "/a.tar.zst"})", false},
        {R"({"version": "1.2", "build": 7})", false},
        {R"({"version": "1.2", "build": "7", "zip": "/a.tar.zst"})", false},
        {R"({"version": "1.2", "build": 7.5, "zip": "/a.tar.zst"})", false},
        {R"([{"version": "1.2", "build": 7, "zip": "/a.tar.zst"}])", false},
    };
    for (const auto& [json, read] : rows)
        EXPECT_EQ(Release::fromJson(json).has_value(), read) << json;
}

// A manifest is read whole or not at all: each row changes one line of a good one.
TEST(ReleaseManifestRules, AMalformedLineOrAPathLeavingTheTreeRefusesTheWholeList) {
    const QByteArray sha(64, 'a'), key = QByteArray(32, 'k').toBase64();
    const QByteArray good = "vorlin-release 1\nversion 0.2.0\nbuild 2\nkey " + key + "\n\nfile " +
                            sha + " 3 755 vorlin/bin/my tool\n";
    const std::pair<QByteArray, QByteArray> rows[] = {
        {"", ""}, // (from, to) in the good text: this row leaves it good
        {"vorlin-release 1", "vorlin-release 2"},
        {"version 0.2.0", "versions 0.2.0"},
        {"version 0.2.0\n", ""},
        {"build 2", "build 0"},
        {"build 2", "build two"},
        {"key " + key, "key " + QByteArray(31, 'k').toBase64()},
        {" 3 755 vorlin/bin/my tool", " 3 755 "},
        {" 3 755 vorlin/bin/my tool", " 3 755"},
        {" 3 755 vorlin/bin/my tool", ""},
        {" 3 755 vorlin", " x 755 vorlin"},
        {" 3 755 vorlin", " 3 9 vorlin"},
        {"file " + sha, "file " + sha.left(63)},
        {"vorlin/bin", "/vorlin/bin"},
        {"vorlin/bin", "vorlin/../bin"},
        {"\n\nfile", "\nfile " + sha + " 1 644 vorlin/bin/my tool\nfile"},
    };
    for (const auto& [from, to] : rows) {
        QByteArray text = good;
        text.replace(from, to);
        const auto manifest = ReleaseManifest::parse(text);
        EXPECT_EQ(manifest.has_value(), from.isEmpty()) << text.toStdString();
        if (!manifest)
            continue;
        EXPECT_EQ(manifest->build, 2);
        ASSERT_EQ(manifest->files.size(), 1u);
        const auto& [path, entry] = *manifest->files.begin();
        EXPECT_EQ(path, "vorlin/bin/my tool");
        EXPECT_EQ(entry.size, 3);
        EXPECT_EQ(entry.mode, 0755);
    }
}

// A key or a signature of the wrong length is refused before anything reads it (in
// allocations of their exact size, which the sanitizer build watches).
TEST(Ed25519, KeysAndSignaturesOfTheWrongLengthAreRefused) {
    for (const auto& [keyLength, signatureLength] :
         {std::pair{31, 64}, {33, 64}, {32, 63}, {32, 65}, {0, 0}}) {
        const auto key = std::make_unique<char[]>(static_cast<std::size_t>(keyLength));
        const auto signature = std::make_unique<char[]>(static_cast<std::size_t>(signatureLength));
        EXPECT_FALSE(Ed25519::verify(QByteArray::fromRawData(key.get(), keyLength), "message",
                                     QByteArray::fromRawData(signature.get(), signatureLength)))
            << keyLength << " " << signatureLength;
    }
}

// What an archive may hold and how much: as many entries as a release may hold unpack, one more
// is refused once it has them; names packed from inside the folder ("./vorlin/…") land as those
// packed beside it; an entry over a link or that is neither a file, a folder nor a link is
// refused; an attribute the reader cannot parse only warns. An archive that cannot be opened, or
// whose header fails its checksum, is named or refused.
TEST(ReleaseArchiveLimits, EntriesUpToTheLimitUnpackInPlaceAndOneMoreIsRefused) {
    TempDir dir;
    struct Entry {
        std::string name;
        unsigned type = AE_IFREG;
        const char* link = nullptr;
    };
    // Writes `entries` (none: no file at all; each file holding "#!") and gives back what
    // unpacking it beside itself, into "<tar>.d", was refused with ("" if nothing). An archive
    // to be edited as bytes gives each entry an attribute record first, so the first file's own
    // header starts at byte 1024 (after the record's header and its block).
    const auto unpack = [&](const std::string& tar, const std::vector<Entry>& entries,
                            const std::function<void(QByteArray&)>& edit = {}) {
        if (!entries.empty()) {
            archive* a = archive_write_new();
            archive_write_set_format_pax(a);
            archive_write_open_filename(a, tar.c_str());
            for (const Entry& e : entries) {
                archive_entry* entry = archive_entry_new();
                archive_entry_set_pathname(entry, e.name.c_str());
                archive_entry_set_filetype(entry, e.type);
                archive_entry_set_perm(entry, 0755);
                archive_entry_set_size(entry, e.type == AE_IFREG ? 2 : 0);
                if (e.link)
                    archive_entry_set_symlink(entry, e.link);
                if (edit)
                    archive_entry_xattr_add_entry(entry, "user.note", "a", 1);
                archive_write_header(a, entry);
                archive_write_data(a, "#!", e.type == AE_IFREG ? 2 : 0);
                archive_entry_free(entry);
            }
            archive_write_close(a);
            archive_write_free(a);
        }
        if (edit) {
            QByteArray bytes = Files::read(QString::fromStdString(tar));
            edit(bytes);
            Files::write(QString::fromStdString(tar), bytes);
        }
        try {
            ReleaseArchive::unpack(QString::fromStdString(tar), QString::fromStdString(tar + ".d"));
        } catch (const UpdateError& error) {
            return error.message();
        }
        return QString();
    };
    EXPECT_TRUE(unpack(dir.file("missing.tar.zst"), {}).contains("missing.tar.zst"));
    for (const auto& [count, prefix] : {std::pair{ReleaseArchive::kMaxEntries, "./vorlin/"},
                                        {ReleaseArchive::kMaxEntries + 1, "vorlin/"}}) {
        std::vector<Entry> entries(static_cast<std::size_t>(count));
        for (int n = 0; n < count; ++n)
            entries[static_cast<std::size_t>(n)].name = prefix + std::to_string(n);
        const std::string tar = dir.file(std::to_string(count) + ".tar");
        const QString refused = unpack(tar, entries);
        if (count > ReleaseArchive::kMaxEntries) {
            EXPECT_TRUE(refused.contains("項目が多すぎます")) << refused.toStdString();
        } else {
            EXPECT_EQ(refused, "");
            EXPECT_EQ(Files::read(QString::fromStdString(tar) + ".d/vorlin/" +
                                  QString::number(count - 1)),
                      "#!");
        }
    }
    EXPECT_EQ(unpack(dir.file("over.tar"), {{"vorlin/lib", AE_IFLNK, "bin"}, {"vorlin/lib"}}),
              "アーカイブを展開できません: 不正な項目 vorlin/lib");
    EXPECT_EQ(unpack(dir.file("fifo.tar"), {{"vorlin/pipe", AE_IFIFO}}),
              "アーカイブを展開できません: 不正な項目 vorlin/pipe");
    const std::string warned = dir.file("warned.tar");
    EXPECT_EQ(unpack(warned, {{"vorlin/vorlin"}},
                     [&](QByteArray& tar) {
                         ASSERT_TRUE(tar.contains("xattr.user.note="));
                         tar.replace("xattr.user.note=", "xattr.user.note_"); // no "=" in it
                     }),
              "");
    EXPECT_EQ(Files::read(QString::fromStdString(warned) + ".d/vorlin/vorlin"), "#!");
    EXPECT_EQ(unpack(dir.file("damaged.tar"), {{"vorlin/vorlin"}},
                     [](QByteArray& tar) { tar[1024 + 5] = 'X'; }),
              "アーカイブを展開できません: Damaged tar archive"); // libarchive's reason
}

TEST_F(UpdaterTest, OffersOnlyWhatIsNewerAndASkippedBuildOnlyWhenAskedByHand) {
    Updater updater(options(), ui);
    setFeed("0.1.0", 1, "/good.tar.zst");
    check(updater, false);
    EXPECT_TRUE(ui.alerts.isEmpty());
    check(updater, true);
    EXPECT_EQ(ui.alerts, QStringList{"Vorlin は最新です: Vorlin は最新です"});

    // The same build with a higher version is offered; skipped, it is not offered again
    // automatically, but it is when the operator asks.
    setFeed("0.1.1", 1, "/good.tar.zst", {{"notes", QJsonArray{"速くなりました"}}});
    ui.answer = UpdaterUi::Choice::skip;
    check(updater, false);
    ASSERT_EQ(ui.offers.size(), 1);
    EXPECT_TRUE(ui.offers[0].startsWith("Vorlin 0.1.1があります\n速くなりました\n\n"));
    check(updater, false);
    EXPECT_EQ(ui.offers.size(), 1);
    ui.answer = UpdaterUi::Choice::later;
    check(updater, true);
    EXPECT_EQ(ui.offers.size(), 2);

    // The system (12 here) must be at least the version the release asks for.
    for (const auto& [needed, offered] :
         {std::pair{"13.1", false}, {"12.0.1", false}, {"12", true}}) {
        setFeed("0.2.0", 2, "/good.tar.zst", {{"minimumSystemVersion", needed}});
        EXPECT_EQ(offersOfACheck(updater), offered ? 1 : 0) << needed;
        if (!offered) {
            EXPECT_EQ(ui.alerts.last(),
                      QString("アップデートを確認できませんでした: %1 以降が必要です").arg(needed));
        }
    }
    // The program's own options know the system it runs on: any system meets a version 1.
    Updater::Options own = options();
    own.systemVersion = Updater::programOptions().systemVersion;
    Updater onThisSystem(own, ui);
    setFeed("0.2.0", 2, "/good.tar.zst", {{"minimumSystemVersion", "1"}});
    check(onThisSystem, true);
    EXPECT_EQ(ui.offers.size(), 4);

    server.routes.erase("/version.json");
    check(updater, true);
    EXPECT_TRUE(ui.alerts.last().contains("サーバーの応答: 404"));
    EXPECT_EQ(ui.offers.size(), 4);
    // No reply outlives its check: a show open for weeks may be checked by hand any number of
    // times.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(updater.findChildren<QNetworkReply*>().isEmpty());

    // A feed of exactly the largest size allowed is read; one byte less allowed, it is not.
    setFeed("0.2.0", 2, "/good.tar.zst");
    const qint64 size = server.routes["/version.json"].body.size();
    ui.answer = UpdaterUi::Choice::skip;
    for (const auto& [largest, offered] : {std::pair{size, true}, {size - 1, false}}) {
        Updater::Options bounded = options();
        bounded.maxFeedBytes = largest;
        Updater sized(bounded, ui);
        EXPECT_EQ(offersOfACheck(sized), offered ? 1 : 0) << largest;
    }
}

// At start-up only the first running copy checks, only with automatic checks on, and only when
// the last check is more than 20 hours old; it checks 3 s later, and that check is the last one
// from then on.
TEST(UpdaterAtStartUp, TheFirstCopyChecksWhenTheLastCheckIsOver20HoursOld) {
    Prefs::registerDefaults();
    TestServer server;
    server.routes["/version.json"] = {R"({"version": "0.2.0", "build": 2, "zip": "/a.tar.zst"})"};
    Updater::Options options;
    options.feed = QUrl(server.url("/version.json"));
    options.currentVersion = "0.1.0";
    options.currentBuild = 1;
    const QString lastCheck = QStringLiteral("update.lastCheck");
    const double now = static_cast<double>(QDateTime::currentSecsSinceEpoch()), day = 72000;
    const struct Row {
        int instance;
        bool automatic;
        double last; // 0: never
        bool checks;
    } rows[] = {{1, true, 0, true},
                {2, true, 0, false},
                {1, false, 0, false},
                {1, true, now - day + 60, false},
                {1, true, now - day - 60, true}};
    ScriptedUi uis[std::size(rows)];
    std::vector<std::unique_ptr<Updater>> updaters;
    for (std::size_t n = 0; n < std::size(rows); ++n) {
        Prefs::setValue(Prefs::kAutoCheckUpdates, rows[n].automatic);
        if (rows[n].last > 0)
            Prefs::setValue(lastCheck, rows[n].last);
        else
            Prefs::remove(lastCheck);
        updaters.push_back(std::make_unique<Updater>(options, uis[n]));
        updaters.back()->checkOnLaunch(rows[n].instance);
    }
    EXPECT_TRUE(
        Wait::until([&] { return uis[0].offers.size() + uis[4].offers.size() == 2; }, 30000));
    Wait::pump(500);
    for (std::size_t n = 0; n < std::size(rows); ++n)
        EXPECT_EQ(uis[n].offers.size(), rows[n].checks ? 1 : 0) << "row " << n;
    EXPECT_GE(Prefs::value(lastCheck).toDouble(), now);
    Prefs::remove(lastCheck);
    Prefs::remove(Prefs::kAutoCheckUpdates);
}

TEST_F(UpdaterTest, InstallsASignedReleaseOnlyAtQuitAndArmsTheSwap) {
    Updater updater(options(), ui);
    bool restart = false;
    QObject::connect(&updater, &Updater::readyToRestart, [&] { restart = true; });
    ui.answer = UpdaterUi::Choice::install;
    check(updater, true);
    EXPECT_TRUE(ui.alerts.isEmpty()) << ui.alerts.join('\n').toStdString();
    EXPECT_TRUE(updater.isArmed());
    EXPECT_FALSE(ui.progressShown); // shown while it downloaded, closed when it ended
    EXPECT_TRUE(restart);
    EXPECT_EQ(snapshot(root), installed);
    EXPECT_EQ(updateFolders(), 1);
}

TEST_F(UpdaterTest, RefusesEveryDoubtfulArchiveAndLeavesTheProgramAsItWas) {
    // What each refusal names: the reason, and the entry or version at fault.
    const std::vector<std::pair<QString, QString>> cases{
        {"other key", "開発元"},
        {"tampered", "署名"},
        {"extra", "署名"},
        {"replayed", "0.1.0"},
        {"other version", "0.2.1"},
        {"parent", "../evil"},
        {"link", "vorlin/share/etc"},
        {"cut", "途中で切れました"},
        {"hangs", "中止"},
        {"edited", "署名"},
        {"signed link", "署名"},
        {"mode", "署名"},
        {"refused", "サーバーの応答: 400"},
    };
    const int folders = updateFolders();
    for (const auto& [name, message] : cases) {
        SCOPED_TRACE(name.toStdString());
        TestServer::Route route{archives->bytes.count(name) ? archives->bytes.at(name)
                                                            : archives->bytes.at("good")};
        if (name == "cut")
            route.answer = TestServer::Answer::cut;
        if (name == "refused")
            route.status = 400;
        if (name == "hangs") {
            route.answer = TestServer::Answer::never;
            ui.cancelsDownload = true;
        }
        server.routes["/doubtful.tar.zst"] = route;
        setFeed("0.2.0", 2, "/doubtful.tar.zst");
        ui.alerts.clear();
        ui.answer = UpdaterUi::Choice::install;
        Updater updater(options(), ui);
        check(updater, true);
        ASSERT_EQ(ui.alerts.size(), 1);
        EXPECT_TRUE(ui.alerts[0].startsWith(kFailed) && ui.alerts[0].contains(message))
            << ui.alerts[0].toStdString();
        EXPECT_FALSE(updater.isArmed());
        EXPECT_EQ(snapshot(root), installed);
        EXPECT_EQ(updateFolders(), folders); // the work folder went with the failure
    }
}

// What a server sends is bounded in size and time, whatever it is: feeds that never end, that
// trickle or are no JSON, notes too long to show whole, archives that never end.
TEST_F(UpdaterTest, FeedsAndArchivesAreBoundedInSizeAndTime) {
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    struct Row {
        TestServer::Route feed;
        const char* fact; // what the message names
    };
    const Row rows[] = {
        {{QByteArray(64 << 10, ' '), TestServer::Answer::endless}, "1024 KB"},
        {{" ", TestServer::Answer::trickle}, "2 秒"},
        {{"<html>maintenance</html>"}, "JSON"},
        {{R"({"status": "ok"})"}, "版の情報"},
    };
    Updater::Options bounded = options();
    bounded.feedTimeLimit = std::chrono::seconds(2);
    for (const Row& row : rows) {
        server.routes["/version.json"] = row.feed;
        ui.alerts.clear();
        Updater updater(bounded, ui);
        check(updater, true);
        ASSERT_EQ(ui.alerts.size(), 1);
        EXPECT_TRUE(ui.alerts[0].startsWith("アップデートを確認できませんでした: ") &&
                    ui.alerts[0].contains(row.fact))
            << ui.alerts[0].toStdString();
    }

    // Notes of 900 KB: offered with the first kMaxNotes characters.
    setFeed("0.2.0", 2, "/good.tar.zst", {{"notes", QJsonArray{QString(900 << 10, 'n')}}});
    ui.answer = UpdaterUi::Choice::later;
    Updater noted(bounded, ui);
    check(noted, true);
    ASSERT_EQ(ui.offers.size(), 1);
    EXPECT_LT(ui.offers[0].size(), Updater::kMaxNotes + 200);
    EXPECT_TRUE(ui.offers[0].contains("…（以下省略）"));

    // An archive that never ends: cut at the maximum, nothing left on disk.
    server.routes["/endless.tar.zst"] = {QByteArray(64 << 10, 'z'), TestServer::Answer::endless};
    setFeed("0.2.0", 2, "/endless.tar.zst");
    bounded.maxArchiveBytes = 16 << 20;
    ui.alerts.clear();
    ui.answer = UpdaterUi::Choice::install;
    const int folders = updateFolders();
    Updater endless(bounded, ui);
    check(endless, true);
    ASSERT_EQ(ui.alerts.size(), 1);
    EXPECT_TRUE(ui.alerts[0].startsWith(kFailed) && ui.alerts[0].contains("16 MB"));
    EXPECT_EQ(updateFolders(), folders);

    // An archive whose server never sends a byte: the transfer gives up by itself.
    server.routes["/silent.tar.zst"] = {archives->bytes.at("good"), TestServer::Answer::never};
    setFeed("0.2.0", 2, "/silent.tar.zst");
    bounded.transferTimeout = std::chrono::seconds(1);
    ui.alerts.clear();
    Updater silent(bounded, ui);
    check(silent, true);
    ASSERT_EQ(ui.alerts.size(), 1);
    EXPECT_TRUE(ui.alerts[0].startsWith(kFailed)) << ui.alerts[0].toStdString();
    EXPECT_EQ(updateFolders(), folders);
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    if (!kSanitized) { // the sanitizer keeps freed memory in quarantine
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 100 * 1024) << "kB more at the peak";
    }
}

TEST_F(UpdaterTest, AProgramWithoutAKeyOrOutsideAnInstalledTreeDoesNotReplaceItself) {
    Updater::Options unsigned_ = options();
    unsigned_.trustedKey.clear();
    Updater updater(unsigned_, ui);
    ui.answer = UpdaterUi::Choice::install;
    check(updater, true);
    EXPECT_TRUE(ui.alerts.value(0).startsWith(kFailed) &&
                ui.alerts.value(0).contains(ReleaseVerifier::kUnsignedProgram))
        << ui.alerts.value(0).toStdString();
    EXPECT_FALSE(updater.isArmed());

    // Run from a build folder (no VERSION beside bin/): the download page instead.
    QFile::remove(root + "/VERSION");
    Updater fromBuild(options(), ui);
    ui.wantsPage = true;
    check(fromBuild, true);
    ASSERT_EQ(ui.refusals.size(), 1);
    EXPECT_TRUE(ui.refusals[0].startsWith("この場所の Vorlin は自動で入れ替えられません") &&
                ui.refusals[0].contains(root));
    EXPECT_EQ(ui.pages, QList<QUrl>{QUrl(server.url("/download"))});
}

} // namespace
