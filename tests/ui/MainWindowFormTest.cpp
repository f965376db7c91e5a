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

    void theWindowIsNamedUnlessItHasAName()
    {
        QCOMPARE(window->objectName(), "MainWindow");
        QMainWindow named;
        named.setObjectName("mine");
        form->setupUi(&named);
        QCOMPARE(named.objectName(), "mine");
    }

    /// That there is no further element is held by ContractTest.
    void theTreeIsComplete()
    {
        QCOMPARE(window->centralWidget(), form->centralWidget);
        QCOMPARE(window->styleSheet(), "background-color: rgb(255, 255, 255);");
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

    void theTitleIsLargeInAnOtherwiseDefaultFont()
    {
        const QFont usual = QApplication::font();
        for (QFont font : {QFont("Monospace", 7, QFont::Bold, true), QFont("Serif", 7)}) {
            QApplication::setFont(font);
            QMainWindow other;
            form->setupUi(&other);
            QApplication::setFont(usual);
            font.setPointSize(15);
            QCOMPARE(form->label->font().toString(), font.toString());
        }
    }

    void translatesItsTextsInOrder()
    {
        QStringList expected{
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
        const auto shown = [this] {
            QStringList texts{window->windowTitle()};
            for (const QLabel *label : {form->label, form->label_2, form->label_3, form->label_4}) {
                texts << label->text();
            }
            for (QWidget *page : {form->tab, form->tab_2, form->tab_5}) {
                texts << form->tabWidget->tabText(form->tabWidget->indexOf(page));
            }
            return texts << form->pushButton->text() << form->pushButton_2->text();
        };
        QCOMPARE(shown(), expected);
        const AskedTexts texts;
        form->retranslateUi(window.get());
        expected.replaceInStrings(QRegularExpression("^"), "MainWindow|none|-1|");
        QCOMPARE(texts.asked, expected);
        QCOMPARE(shown(), expected);
    }

    void opensWithTheDirectionsInFrontAndTheButtonsBelow()
    {
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
        QCOMPARE(window->size(), QSize(476, 374));
        QVERIFY(form->tab->isVisible());
        QVERIFY(!form->tab_2->isVisible());
        QVERIFY(!form->tab_5->isVisible());
        const QRect area = form->verticalLayout->geometry();
        const QRect deploy = form->pushButton->geometry();
        const QRect stop = form->pushButton_2->geometry();
        QCOMPARE(deploy.left(), area.left() + 14);
        QCOMPARE(stop.left(), deploy.right() + 1 + 6);
        QCOMPARE(stop.right(), area.right() - 14);
        QCOMPARE(deploy.bottom(), area.bottom());
        QCOMPARE(stop.bottom(), area.bottom());
    }

private:
    std::unique_ptr<QMainWindow> window;
    std::unique_ptr<Ui_MainWindow> form;
};

QTEST_MAIN(MainWindowFormTest)
#include "MainWindowFormTest.moc"
