#include "ui_MainWindow.h"

#include <QProxyStyle>
#include <QRegularExpression>
#include <QStyleFactory>
#include <QTest>
#include <QTranslator>

#include <memory>

namespace {

/// Default margins and spacings that differ from the form's.
class OddStyle : public QProxyStyle
{
public:
    OddStyle() : QProxyStyle(QStyleFactory::create("fusion")) {}

    int pixelMetric(PixelMetric metric, const QStyleOption *option,
                    const QWidget *widget) const override
    {
        switch (metric) {
        case PM_LayoutLeftMargin:
        case PM_LayoutTopMargin:
        case PM_LayoutRightMargin:
        case PM_LayoutBottomMargin:
            return 21;
        case PM_LayoutHorizontalSpacing:
        case PM_LayoutVerticalSpacing:
            return 22;
        default:
            return QProxyStyle::pixelMetric(metric, option, widget);
        }
    }
};

/// Answers with what it is asked, and keeps it.
class AskedTexts : public QTranslator
{
public:
    AskedTexts() { QCoreApplication::installTranslator(this); }

    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *source, const char *disambiguation,
                      int count) const override
    {
        if (*context == 'Q') { // one of the toolkit's own widgets
            return {};
        }
        asked.append(QString("%1|%2|%3|%4")
                         .arg(context, disambiguation == nullptr ? "none" : disambiguation)
                         .arg(count)
                         .arg(QString::fromUtf8(source)));
        return asked.last();
    }

    mutable QStringList asked;
};

template <typename... Parts>
QString line(const Parts &...parts)
{
    QString text;
    (QDebug(&text).noquote() << ... << parts);
    return text.trimmed();
}

QStringList indented(QStringList lines)
{
    return lines.replaceInStrings(QRegularExpression("^"), "  ");
}

QStringList describe(const QWidget *widget);

/// A layout and all in it as text, one line an element. Takes it apart: one inside another counts
/// the style's margins as 0, and tells them on a page of its own.
QStringList describe(QLayout *layout)
{
    QStringList lines;
    const auto *grid = qobject_cast<QGridLayout *>(layout);
    while (QLayoutItem *item = layout->itemAt(0)) {
        QString place = item->alignment() == 0 ? "" : " aligned";
        if (grid != nullptr) {
            int row = 0;
            int column = 0;
            int rows = 0;
            int columns = 0;
            grid->getItemPosition(0, &row, &column, &rows, &columns);
            place += QString(" at %1,%2 %3x%4").arg(row).arg(column).arg(rows).arg(columns);
        }
        layout->takeAt(0);
        QStringList parts;
        if (item->layout() != nullptr) {
            parts = describe(item->layout());
        } else if (item->widget() != nullptr) {
            parts = describe(item->widget());
            delete item;
        } else {
            const QSizePolicy policy = item->spacerItem()->sizePolicy();
            parts << line("spacer", item->sizeHint(), policy.horizontalPolicy(),
                          policy.verticalPolicy());
            delete item;
        }
        parts.first() += place;
        lines += indented(parts);
    }
    QWidget page; // deletes the layout
    if (layout->parent() == nullptr) {
        page.setLayout(layout);
    }
    lines.prepend(line(layout->metaObject()->className(), layout->objectName(), "spacing",
                       layout->spacing(), layout->contentsMargins()));
    return lines;
}

/// A widget and all in it as text, one line an element.
QStringList describe(const QWidget *widget)
{
    QStringList lines{line(widget->metaObject()->className(), widget->objectName())};
    const auto *label = qobject_cast<const QLabel *>(widget);
    if (label != nullptr && label->wordWrap()) {
        lines.first() += " wrapping";
    }
    if (!widget->styleSheet().isEmpty()) {
        lines.first() += ": " + widget->styleSheet();
    }
    if (const auto *tabs = qobject_cast<const QTabWidget *>(widget)) {
        for (int i = 0; i < tabs->count(); ++i) {
            lines += indented(describe(tabs->widget(i)));
        }
    } else if (widget->layout() != nullptr) {
        lines += indented(describe(widget->layout()));
    }
    return lines;
}

} // namespace

/// The pointers' order is held by ContractTest.
class MainWindowFormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QApplication::setStyle(new OddStyle); }

    void init()
    {
        window = std::make_unique<QMainWindow>();
        form = std::make_unique<Ui_MainWindow>();
        form->setupUi(window.get());
    }

    void cleanup()
    {
        window.reset();
        form.reset();
    }

    void aWindowWithoutANameIsNamed() { QCOMPARE(window->objectName(), "MainWindow"); }

    void aWindowWithANameKeepsIt()
    {
        QMainWindow named;
        named.setObjectName("mine");
        form->setupUi(&named);
        QCOMPARE(named.objectName(), "mine");
    }

    void theWindowIsWhite()
    {
        QCOMPARE(window->styleSheet(), "background-color: rgb(255, 255, 255);");
    }

    void theCentralWidgetIsTheWindows() { QCOMPARE(window->centralWidget(), form->centralWidget); }

    /// That there is no further element is held by ContractTest.
    void theTreeIsComplete()
    {
        const QString byStyle = "spacing 6 QMargins(21, 21, 21, 21)";
        const QStringList expected{
            "QWidget centralWidget",
            "  QGridLayout gridLayout spacing 6 QMargins(11, 11, 11, 11)",
            "    QVBoxLayout verticalLayout spacing 6 QMargins(21, 21, 21, 0) at 0,0 1x1",
            "      QVBoxLayout verticalLayout_2 spacing 6 QMargins(21, 21, 21, 0)",
            "        QHBoxLayout horizontalLayout_2 " + byStyle,
            "          spacer QSize(40, 20) QSizePolicy::Expanding QSizePolicy::Minimum",
            "          QLabel label: color:rgb(100,149,237)",
            "          spacer QSize(40, 20) QSizePolicy::Expanding QSizePolicy::Minimum",
            "      QVBoxLayout verticalLayout_5 " + byStyle,
            "        QTabWidget tabWidget: border-color: rgb(192, 196, 196);",
            "          QWidget tab",
            "            QGridLayout gridLayout_4 spacing 6 QMargins(11, 11, 11, 11)",
            "              QVBoxLayout verticalLayout_6 " + byStyle + " at 0,0 1x1",
            "                QLabel label_2 wrapping",
            "              QVBoxLayout verticalLayout_8 " + byStyle + " at 1,0 1x1",
            "                QLabel label_3 wrapping",
            "              QVBoxLayout verticalLayout_9 " + byStyle + " at 2,0 1x1",
            "                QLabel label_4 wrapping",
            "          QWidget tab_2",
            "            QGridLayout gridLayout_2 spacing 6 QMargins(11, 11, 11, 11)",
            "              RpcQListView listView at 0,0 1x1",
            "          QWidget tab_5",
            "            QGridLayout gridLayout_3 spacing 6 QMargins(11, 11, 11, 11)",
            "              NginxQListView listView_2 at 0,0 1x1",
            "      QHBoxLayout horizontalLayout_3 spacing 6 QMargins(14, 0, 14, 0)",
            "        QHBoxLayout horizontalLayout_8 " + byStyle,
            "          DeployBtn pushButton: background-color: rgb(100,149,237);\n"
            "border-color: rgb(100,149,237);\n"
            "color:rgb(255,255,255)",
            "        QHBoxLayout horizontalLayout_9 " + byStyle,
            "          DeployBtn pushButton_2: background-color:rgb(255,19,3);\n"
            "border-color:rgb(255,19,3);\n"
            "color:rgb(255,255,255)",
        };
        QCOMPARE(describe(window->centralWidget()), expected);
    }

    void theTitleIsLargeInAnOtherwiseDefaultFont_data()
    {
        QTest::addColumn<QFont>("defaultFont");
        QTest::newRow("bold and italic") << QFont("Monospace", 7, QFont::Bold, true);
        QTest::newRow("plain") << QFont("Serif", 7);
    }

    void theTitleIsLargeInAnOtherwiseDefaultFont()
    {
        QFETCH(QFont, defaultFont);
        const QFont usual = QApplication::font();
        QApplication::setFont(defaultFont);
        QMainWindow other;
        form->setupUi(&other);
        QApplication::setFont(usual);
        QFont expected = defaultFont;
        expected.setPointSize(15);
        QCOMPARE(form->label->font().toString(), expected.toString());
    }

    void showsItsTexts() { QCOMPARE(shownTexts(), texts); }

    /// In the window's context, without a remark and a number; in the order of the list.
    void asksForATranslationOfEachTextInOrder()
    {
        const AskedTexts translator;
        form->retranslateUi(window.get());
        QCOMPARE(translator.asked, asAsked(texts));
    }

    void showsTheTranslationOfEachText()
    {
        const AskedTexts translator;
        form->retranslateUi(window.get());
        QCOMPARE(shownTexts(), asAsked(texts));
    }

    /// The size stands in ui/MainWindow.ui and, as a promise, here; nothing else repeats it.
    void opensInItsSize()
    {
        QVERIFY(show());
        QCOMPARE(window->size(), QSize(476, 374));
    }

    void opensWithThePageInFront_data()
    {
        QTest::addColumn<QString>("page");
        QTest::addColumn<bool>("inFront");
        QTest::newRow("Directions") << "tab" << true;
        QTest::newRow("RPC Service") << "tab_2" << false;
        QTest::newRow("Nginx") << "tab_5" << false;
    }

    void opensWithThePageInFront()
    {
        QFETCH(QString, page);
        QFETCH(bool, inFront);
        QVERIFY(show());
        QCOMPARE(window->findChild<QWidget *>(page)->isVisible(), inFront);
    }

    void theDeployButtonKeepsAwayFromTheLeftEdge()
    {
        QVERIFY(show());
        QCOMPARE(form->pushButton->geometry().left(), area().left() + buttonMargin);
    }

    void theStopButtonKeepsAwayFromTheRightEdge()
    {
        QVERIFY(show());
        QCOMPARE(form->pushButton_2->geometry().right(), area().right() - buttonMargin);
    }

    void theStopButtonLiesToTheRightOfTheDeployButton()
    {
        QVERIFY(show());
        const int behindDeploy = form->pushButton->geometry().right() + 1;
        QCOMPARE(form->pushButton_2->geometry().left(), behindDeploy + spacing);
    }

    void theDeployButtonLiesAtTheBottom()
    {
        QVERIFY(show());
        QCOMPARE(form->pushButton->geometry().bottom(), area().bottom());
    }

    void theStopButtonLiesAtTheBottom()
    {
        QVERIFY(show());
        QCOMPARE(form->pushButton_2->geometry().bottom(), area().bottom());
    }

private:
    static constexpr int buttonMargin = 14; // pixels
    static constexpr int spacing = 6;       // pixels

    bool show()
    {
        window->show();
        return QTest::qWaitForWindowExposed(window.get());
    }

    /// Where the layout of all that the window shows lies.
    QRect area() const { return form->verticalLayout->geometry(); }

    /// In the order in which they are set.
    const QStringList texts{
        "MainWindow",
        "Orvane Launcher",
        "[About Start] Please click the [Deploy Service] bottom.Then ope the (Chrome/Firefox) "
        "browser,type \"http://localhost:4200\" into the URL blank,go in. ",
        "[About Close] Please check that all your device playing has been stopped.Then click "
        "the [Stop Service] buttom to stop all orvane services",
        "[About Restart] If you find that the DPS number(onthe right top side of the video "
        "window) always been 0 while you had opened the channel.You can try to restart the "
        "services by clicking the [Deploy Service] bottom again",
        "Directions",
        "RPC Service",
        "Nginx",
        "Deploy Servicde",
        "Stop Service",
    };

    /// What the window shows, in the same order.
    QStringList shownTexts() const
    {
        QStringList shown{window->windowTitle()};
        for (const QLabel *label : {form->label, form->label_2, form->label_3, form->label_4}) {
            shown << label->text();
        }
        for (QWidget *page : {form->tab, form->tab_2, form->tab_5}) {
            shown << form->tabWidget->tabText(form->tabWidget->indexOf(page));
        }
        return shown << form->pushButton->text() << form->pushButton_2->text();
    }

    /// What AskedTexts makes of these texts.
    static QStringList asAsked(QStringList sources)
    {
        return sources.replaceInStrings(QRegularExpression("^"), "MainWindow|none|-1|");
    }

    std::unique_ptr<QMainWindow> window;
    std::unique_ptr<Ui_MainWindow> form;
};

QTEST_MAIN(MainWindowFormTest)
#include "MainWindowFormTest.moc"
