#include "common/Json.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

class TestJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keepsAByteOrderMark_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("at the beginning") << u"\uFEFFtext"_s;
        QTest::newRow("alone") << u"\uFEFF"_s;
        QTest::newRow("twice") << u"\uFEFF\uFEFFtext"_s;
        QTest::newRow("after a quote") << u"\"\uFEFFtext"_s;
        QTest::newRow("after a backslash") << u"\\\uFEFFtext"_s;
        QTest::newRow("inside") << u"te\uFEFFxt"_s;
        QTest::newRow("before an escape") << u"\uFEFF\n"_s;
    }

    void keepsAByteOrderMark()
    {
        QFETCH(QString, text);
        const QJsonObject object{{u"member"_s, text}};
        QCOMPARE(parseObject(compactJson(object)), object);
    }

    void readsAMarkThatIsNotEscaped()
    {
        QCOMPARE(parseObject("{\"a\":\"\xEF\xBB\xBFx\",\"\xEF\xBB\xBF\":\"\xEF\xBB\xBF\\n\"}"),
                 QJsonObject({{u"a"_s, u"\uFEFFx"_s}, {u"\uFEFF"_s, u"\uFEFF\n"_s}}));
    }

    void writesAMarkAsAnEscape()
    {
        QCOMPARE(compactJson({{u"a"_s, u"\uFEFFé"_s}}), QByteArray("{\"a\":\"\\ufeff\xC3\xA9\"}"));
    }

    void takesNothingButAnObject()
    {
        QCOMPARE(parseObject("[1]"), QJsonObject());
        QCOMPARE(parseObject("{\"a\":"), QJsonObject());
        QCOMPARE(parseObject(""), QJsonObject());
        QCOMPARE(parseObject("\xEF\xBB\xBF{\"a\":1}"), QJsonObject({{u"a"_s, 1}}));
    }
};

QTEST_APPLESS_MAIN(TestJson)
#include "test_json.moc"
