#include "agent/postgres/Protocol.h"

#include <QTest>

#include <utility>

using namespace corv::postgres;

namespace {

using Messages = QList<std::pair<char, QByteArray>>;

// A server's message.
QByteArray message(char type, const QByteArray &body)
{
    const auto length = static_cast<quint32>(body.size() + 4);
    const char bytes[] = {type, static_cast<char>(length >> 24U), static_cast<char>(length >> 16U),
                          static_cast<char>(length >> 8U), static_cast<char>(length)};
    return QByteArray(bytes, sizeof bytes) + body;
}

// What a scanner finds in a text that comes in pieces of so many bytes.
Messages scanned(MessageScanner::Side side, const QByteArray &text, qsizetype piece, bool *isSound)
{
    Messages found;
    MessageScanner scanner(side);
    *isSound = true;
    for (qsizetype at = 0; at < text.size() && *isSound; at += piece) {
        const QByteArray part = text.mid(at, piece);
        *isSound = scanner.take(part.constData(), part.size(), [&](char type, const QByteArray &body) {
            found.append({type, body});
        });
    }
    return found;
}

} // namespace

class TestPostgresProtocol : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsMessagesApartInAnyPieces_data()
    {
        QTest::addColumn<int>("piece");
        for (const int piece : {1, 2, 3, 4, 5, 6, 7, 100, 1'000'000})
            QTest::addRow("pieces of %d", piece) << piece;
    }
    void tellsMessagesApartInAnyPieces()
    {
        QFETCH(int, piece);
        const QByteArray text = message('R', QByteArray(4, '\0')) + message('N', {}) + message('Z', "I");
        bool isSound = false;
        const Messages expected = {{'R', QByteArray(4, '\0')}, {'N', {}}, {'Z', "I"}};
        QCOMPARE(scanned(MessageScanner::Side::Server, text, piece, &isSound), expected);
        QVERIFY(isSound);
    }

    void takesAClientsFirstMessageWithoutAType()
    {
        const QByteArray start = startMessage("alice", "alice__restore", "-crole=none");
        bool isSound = false;
        const Messages expected = {{'\0', start.mid(4)}, {'Q', QByteArray("SELECT 1\0", 9)}, {'X', {}}};
        QCOMPARE(
            scanned(MessageScanner::Side::Client, start + queryMessage("SELECT 1") + goodbyeMessage(), 7, &isSound),
            expected);
        QVERIFY(isSound);
    }

    void writesWhatTheServerReads()
    {
        const QByteArray expected("\0\0\0\x49\0\3\0\0user\0alice\0database\0d\0options\0-ca=b\0"
                                  "application_name\0corv-agent\0\0",
                                  0x49);
        QCOMPARE(startMessage("alice", "d", "-ca=b"), expected);
        QCOMPARE(queryMessage("SELECT 1"), QByteArray("Q\0\0\0\x0dSELECT 1\0", 14));
        QCOMPARE(goodbyeMessage(), QByteArray("X\0\0\0\4", 5));
    }

    void keepsTheBeginningOfALongMessage()
    {
        const QByteArray text = message('D', QByteArray(1'000'000, 'a')) + message('Z', "I");
        bool isSound = false;
        const Messages expected = {{'D', QByteArray(kKeptBytes, 'a')}, {'Z', "I"}};
        QCOMPARE(scanned(MessageScanner::Side::Server, text, 65'536, &isSound), expected);
        QVERIFY(isSound);
    }

    void doesNotReportWhatIsNotComplete()
    {
        bool isSound = false;
        QCOMPARE(scanned(MessageScanner::Side::Server, message('Z', "I").chopped(1), 3, &isSound), Messages());
        QVERIFY(isSound);
    }

    void noticesWhatIsNoMessage_data()
    {
        QTest::addColumn<QByteArray>("length");
        QTest::newRow("zero") << QByteArray(4, '\0');
        QTest::newRow("less than its own length") << QByteArray("\0\0\0\3", 4);
        QTest::newRow("negative") << QByteArray("\x80\0\0\0", 4);
        QTest::newRow("minus one") << QByteArray("\xff\xff\xff\xff", 4);
    }
    void noticesWhatIsNoMessage()
    {
        QFETCH(QByteArray, length);
        MessageScanner scanner(MessageScanner::Side::Server);
        int seen = 0;
        const auto count = [&seen](char, const QByteArray &) { ++seen; };
        const QByteArray text = 'E' + length + message('Z', "I");
        QVERIFY(!scanner.take(text.constData(), text.size(), count));
        QVERIFY(!scanner.take(text.constData(), text.size(), count));
        QCOMPARE(seen, 0);
    }

    void tellsWhoIsLetIn_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("expected");
        QTest::newRow("let in") << QByteArray(4, '\0') << true;
        QTest::newRow("password wanted") << QByteArray("\0\0\0\3", 4) << false;
        QTest::newRow("SCRAM") << QByteArray("\0\0\0\x0aSCRAM-SHA-256\0\0", 19) << false;
        QTest::newRow("too short") << QByteArray(3, '\0') << false;
        QTest::newRow("empty") << QByteArray() << false;
    }
    void tellsWhoIsLetIn()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, expected);
        QCOMPARE(letsIn(body), expected);
    }

    void readsAnErrorsFields_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("as the server sends it")
            << QByteArray("SFATAL\0VFATAL\0C28000\0Mrole \"x\" is not permitted to log in\0Fmiscinit.c\0\0", 71)
            << QByteArray("role \"x\" is not permitted to log in");
        QTest::newRow("another field holds the letter") << QByteArray("SM\0Mtext\0\0", 10) << QByteArray("text");
        QTest::newRow("without it") << QByteArray("SFATAL\0\0", 8) << QByteArray();
        QTest::newRow("cut off within it") << QByteArray("SFATAL\0Mhalf a sen", 18) << QByteArray("half a sen");
        QTest::newRow("nothing") << QByteArray() << QByteArray();
        QTest::newRow("ends at once") << QByteArray(1, '\0') << QByteArray();
    }
    void readsAnErrorsFields()
    {
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, text);
        QCOMPARE(errorField(body, 'M'), text);
    }

    void readsTheFirstColumnOfARow_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("a word") << QByteArray("\0\1\0\0\0\5empty", 11) << QByteArray("empty");
        QTest::newRow("of two") << QByteArray("\0\2\0\0\0\1a\0\0\0\1b", 12) << QByteArray("a");
        QTest::newRow("null") << QByteArray("\0\1\xff\xff\xff\xff", 6) << QByteArray();
        QTest::newRow("longer than the message") << QByteArray("\0\1\0\0\0\6empty", 11) << QByteArray();
        QTest::newRow("no column") << QByteArray(2, '\0') << QByteArray();
        QTest::newRow("nothing") << QByteArray() << QByteArray();
    }
    void readsTheFirstColumnOfARow()
    {
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, expected);
        QCOMPARE(firstColumn(body), expected);
    }
};

QTEST_APPLESS_MAIN(TestPostgresProtocol)

#include "test_postgres_protocol.moc"
