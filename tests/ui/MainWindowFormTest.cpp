#include "ui_MainWindow.h"

#include <QFontMetrics>
#include <QMetaEnum>
#include <QProxyStyle>
#include <QStyleFactory>
#include <QTest>
#include <QTranslator>

#include <memory>

Q_DECLARE_METATYPE(QMargins)

namespace {

/// Default margins and spacings that differ from each other and from the form's.
class OddStyle : public QProxyStyle
{
public:
    OddStyle() : QProxyStyle(QStyleFactory::create("fusion")) {}

    int pixelMetric(PixelMetric metric, const QStyleOption *option,
                    const QWidget *widget) const override
    {
        switch (metric) {
        case PM_LayoutLeftMargin:
            return 21;
        case PM_LayoutTopMargin:
            return 22;
        case PM_LayoutRightMargin:
            return 23;
        case PM_LayoutBottomMargin:
            return 24;
        case PM_LayoutHorizontalSpacing:
        case PM_LayoutVerticalSpacing:
            return 25;
        default:
            return QProxyStyle::pixelMetric(metric, option, widget);
        }
    }
};

/// Keeps what it is asked to translate, and translates nothing.
class AskedTexts : public QTranslator
{
public:
    AskedTexts() { QCoreApplication::installTranslator(this); }

    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *source, const char *disambiguation,
                      int count) const override
    {
        if (*context != 'Q') { // not one of the toolkit's own widgets
            asked.append(QString("%1|%2|%3|%4")
                             .arg(context, disambiguation == nullptr ? "none" : disambiguation)
                             .arg(count)
                             .arg(QString::fromUtf8(source)));
        }
        return {};
    }

    mutable QStringList asked;
};

/// A layout and all in it as text, one line an item: the class and name, or the numbers of a
/// spacer; for a layout its spacing; for an item of a grid its cell and how many rows and columns
/// it spans.
QStringList describe(QLayout *layout, const QString &indent = {})
{
    const auto nameOf = [](const QObject *object) {
        return QString("%1 %2").arg(object->metaObject()->className(), object->objectName());
    };
    const auto *grid = qobject_cast<QGridLayout *>(layout);
    const QString spacing =
        grid == nullptr
            ? QString::number(layout->spacing())
            : QString("%1/%2").arg(grid->horizontalSpacing()).arg(grid->verticalSpacing());
    QStringList lines{indent + nameOf(layout) + " spacing " + spacing};
    for (int i = 0; i < layout->count(); ++i) {
        QLayoutItem *item = layout->itemAt(i);
        QStringList parts;
        if (item->widget() != nullptr) {
            parts << QString("%1  %2 of %3")
                         .arg(indent, nameOf(item->widget()),
                              item->widget()->parent()->objectName());
        } else if (item->layout() != nullptr) {
            parts = describe(item->layout(), indent + "  ");
        } else {
            const QSizePolicy policy = item->spacerItem()->sizePolicy();
            const auto policies = QMetaEnum::fromType<QSizePolicy::Policy>();
            parts << QString("%1  spacer %2x%3 %4 %5")
                         .arg(indent)
                         .arg(item->sizeHint().width())
                         .arg(item->sizeHint().height())
                         .arg(policies.valueToKey(policy.horizontalPolicy()))
                         .arg(policies.valueToKey(policy.verticalPolicy()));
        }
        if (grid != nullptr) {
            int row = 0;
            int column = 0;
            int rows = 0;
            int columns = 0;
            grid->getItemPosition(i, &row, &column, &rows, &columns);
            parts[0] += QString(" at %1,%2 %3x%4").arg(row).arg(column).arg(rows).arg(columns);
        }
        if (item->alignment() != 0) {
            parts[0] += " aligned";
        }
        lines += parts;
    }
    return lines;
}

const QString startDirections =
    "[About Start] Please click the [Deploy Service] bottom.Then ope the (Chrome/Firefox) "
    "browser,type \"http://localhost:4200\" into the URL blank,go in. ";
const QString closeDirections =
    "[About Close] Please check that all your device playing has been stopped.Then click the "
    "[Stop Service] buttom to stop all orvane services";
const QString restartDirections =
    "[About Restart] If you find that the DPS number(onthe right top side of the video window) "
    "always been 0 while you had opened the channel.You can try to restart the services by "
    "clicking the [Deploy Service] bottom again";

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

    void theTreeIsComplete()
    {
        QCOMPARE(window->centralWidget(), form->centralWidget);
        QCOMPARE(describe(form->centralWidget->layout()),
                 QStringList({
                     "QGridLayout gridLayout spacing 6/6",
                     "  QVBoxLayout verticalLayout spacing 6 at 0,0 1x1",
                     "    QVBoxLayout verticalLayout_2 spacing 6",
                     "      QHBoxLayout horizontalLayout_2 spacing 6",
                     "        spacer 40x20 Expanding Minimum",
                     "        QLabel label of centralWidget",
                     "        spacer 40x20 Expanding Minimum",
                     "    QVBoxLayout verticalLayout_5 spacing 6",
                     "      QTabWidget tabWidget of centralWidget",
                     "    QHBoxLayout horizontalLayout_3 spacing 6",
                     "      QHBoxLayout horizontalLayout_8 spacing 6",
                     "        DeployBtn pushButton of centralWidget",
                     "      QHBoxLayout horizontalLayout_9 spacing 6",
                     "        DeployBtn pushButton_2 of centralWidget",
                 }));
        QCOMPARE(describe(form->tab->layout()),
                 QStringList({
                     "QGridLayout gridLayout_4 spacing 6/6",
                     "  QVBoxLayout verticalLayout_6 spacing 6 at 0,0 1x1",
                     "    QLabel label_2 of tab",
                     "  QVBoxLayout verticalLayout_8 spacing 6 at 1,0 1x1",
                     "    QLabel label_3 of tab",
                     "  QVBoxLayout verticalLayout_9 spacing 6 at 2,0 1x1",
                     "    QLabel label_4 of tab",
                 }));
        QCOMPARE(describe(form->tab_2->layout()),
                 QStringList({"QGridLayout gridLayout_2 spacing 6/6",
                              "  RpcQListView listView of tab_2 at 0,0 1x1"}));
        QCOMPARE(describe(form->tab_5->layout()),
                 QStringList({"QGridLayout gridLayout_3 spacing 6/6",
                              "  NginxQListView listView_2 of tab_5 at 0,0 1x1"}));
    }

    /// Such as the menu bar, tool bar and status bar that the designer puts into a new form.
    void thereIsNoFurtherElement()
    {
        QStringList found;
        for (const QWidget *parent : {static_cast<QWidget *>(window.get()), form->centralWidget,
                                      form->tab, form->tab_2, form->tab_5}) {
            for (const QWidget *child :
                 parent->findChildren<QWidget *>(QString(), Qt::FindDirectChildrenOnly)) {
                found << child->objectName();
            }
        }
        QCOMPARE(found,
                 QStringList({"centralWidget", "label", "tabWidget", "pushButton", "pushButton_2",
                              "label_2", "label_3", "label_4", "listView", "listView_2"}));
    }

    void hasThreePagesAndShowsTheDirections()
    {
        QCOMPARE(form->tabWidget->count(), 3);
        const QStringList titles{"Directions", "RPC Service", "Nginx"};
        const QList<QWidget *> pages{form->tab, form->tab_2, form->tab_5};
        const QStringList names{"tab", "tab_2", "tab_5"};
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(form->tabWidget->tabText(i), titles.at(i));
            QCOMPARE(form->tabWidget->widget(i), pages.at(i));
            QCOMPARE(pages.at(i)->objectName(), names.at(i));
            QCOMPARE(pages.at(i)->metaObject()->className(), "QWidget");
        }
        QCOMPARE(form->tabWidget->currentIndex(), 0);
        QCOMPARE(form->centralWidget->objectName(), "centralWidget");
    }

    void layoutsHaveTheirMargins_data()
    {
        const QMargins grid(11, 11, 11, 11);
        const QMargins styles(21, 22, 23, 24); // nothing set: the style's
        const QMargins flushBottom(21, 22, 23, 0);
        QTest::addColumn<QMargins>("margins");
        QTest::newRow("gridLayout") << grid;
        QTest::newRow("gridLayout_2") << grid;
        QTest::newRow("gridLayout_3") << grid;
        QTest::newRow("gridLayout_4") << grid;
        QTest::newRow("verticalLayout") << flushBottom;
        QTest::newRow("verticalLayout_2") << flushBottom;
        QTest::newRow("horizontalLayout_3") << QMargins(14, 0, 14, 0);
        for (const char *name :
             {"horizontalLayout_2", "verticalLayout_5", "verticalLayout_6", "verticalLayout_8",
              "verticalLayout_9", "horizontalLayout_8", "horizontalLayout_9"}) {
            QTest::newRow(name) << styles;
        }
    }

    /// Inside another layout, the style's default margins count as 0; a layout shows them when it
    /// is moved to a widget of its own.
    void layoutsHaveTheirMargins()
    {
        QFETCH(QMargins, margins);
        auto *layout = window->findChild<QLayout *>(QTest::currentDataTag());
        if (auto *outer = qobject_cast<QLayout *>(layout->parent())) {
            outer->removeItem(layout);
            layout->setParent(nullptr);
            auto *page = new QWidget(window.get());
            page->setLayout(layout);
        }
        QCOMPARE(layout->contentsMargins(), margins);
    }

    void onlyTheseElementsAreStyled()
    {
        const QMap<QString, QString> expected{
            {"label", "color:rgb(100,149,237)"},
            {"tabWidget", "border-color: rgb(192, 196, 196);"},
            {"pushButton", "background-color: rgb(100,149,237);\n"
                           "border-color: rgb(100,149,237);\n"
                           "color:rgb(255,255,255)"},
            {"pushButton_2", "background-color:rgb(255,19,3);\n"
                             "border-color:rgb(255,19,3);\n"
                             "color:rgb(255,255,255)"},
        };
        QMap<QString, QString> found;
        for (const QWidget *widget : window->findChildren<QWidget *>()) {
            if (!widget->styleSheet().isEmpty()) {
                found.insert(widget->objectName(), widget->styleSheet());
            }
        }
        QCOMPARE(found, expected);
        QCOMPARE(window->styleSheet(), "background-color: rgb(255, 255, 255);");
    }

    void theTitleIsLargeInAnOtherwiseDefaultFont_data()
    {
        QTest::addColumn<QFont>("expected");
        QTest::newRow("bold and slanted") << QFont("Monospace", 7, QFont::Bold, true);
        QTest::newRow("plain") << QFont("Serif", 7);
    }

    void theTitleIsLargeInAnOtherwiseDefaultFont()
    {
        QFETCH(QFont, expected);
        const QFont usual = QApplication::font();
        QApplication::setFont(expected);
        QMainWindow other;
        form->setupUi(&other);
        QApplication::setFont(usual);
        expected.setPointSize(15);
        QCOMPARE(form->label->font().toString(), expected.toString());
    }

    void showsItsTexts()
    {
        QCOMPARE(window->windowTitle(), "MainWindow");
        QCOMPARE(form->label->text(), "Orvane Launcher");
        QCOMPARE(form->label_2->text(), startDirections);
        QCOMPARE(form->label_3->text(), closeDirections);
        QCOMPARE(form->label_4->text(), restartDirections);
        QCOMPARE(form->pushButton->text(), "Deploy Servicde");
        QCOMPARE(form->pushButton_2->text(), "Stop Service");
    }

    void translatesItsTextsInOrder()
    {
        const AskedTexts texts;
        form->retranslateUi(window.get());
        QStringList expected;
        for (const QString &text :
             {QString("MainWindow"), QString("Orvane Launcher"), startDirections, closeDirections,
              restartDirections, QString("Directions"), QString("RPC Service"), QString("Nginx"),
              QString("Deploy Servicde"), QString("Stop Service")}) {
            expected.append("MainWindow|none|-1|" + text);
        }
        QCOMPARE(texts.asked, expected);
    }

    void opensAtItsSizeWithTheDirectionsInFront()
    {
        show();
        QCOMPARE(window->size(), QSize(476, 374));
        QVERIFY(form->tab->isVisible());
        QVERIFY(!form->tab_2->isVisible());
        QVERIFY(!form->tab_5->isVisible());
    }

    void onlyTheDirectionsWrapToThePageWidth()
    {
        show();
        QVERIFY(!form->label->wordWrap());
        for (const QLabel *label : {form->label_2, form->label_3, form->label_4}) {
            const QFontMetrics metrics(label->font());
            QVERIFY(label->wordWrap());
            QCOMPARE(label->width(), form->tab->width() - 2 * 11);
            QVERIFY(metrics.horizontalAdvance(label->text()) > label->width());
            QVERIFY(label->heightForWidth(label->width()) >= 2 * metrics.height());
        }
    }

    void theTitleIsCentred()
    {
        show();
        const QRect title = form->label->geometry();
        const QRect line = form->horizontalLayout_2->geometry();
        const int left = title.left() - line.left();
        const int right = line.right() - title.right();
        QVERIFY2(qAbs(left - right) <= 1, qPrintable(QString("%1 %2").arg(left).arg(right)));
        QVERIFY(left > 40);
    }

    void theButtonsSitSideBySideAtTheBottom()
    {
        show();
        const QRect area = form->verticalLayout->geometry();
        const QRect deploy = form->pushButton->geometry();
        const QRect stop = form->pushButton_2->geometry();
        QCOMPARE(deploy.left() - area.left(), 14);
        QCOMPARE(area.right() - stop.right(), 14);
        QCOMPARE(stop.left() - deploy.right() - 1, 6);
        QCOMPARE(deploy.top(), stop.top());
        QCOMPARE(deploy.bottom(), area.bottom());
        QCOMPARE(stop.bottom(), area.bottom());
        QVERIFY(deploy.top() > form->tabWidget->geometry().bottom());
    }

private:
    void show()
    {
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    }

    std::unique_ptr<QMainWindow> window;
    std::unique_ptr<Ui_MainWindow> form;
};

QTEST_MAIN(MainWindowFormTest)
#include "MainWindowFormTest.moc"
