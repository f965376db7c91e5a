#include "tests/ui/FormElements.h"
#include "tests/ui/FormWatchers.h"
#include "ui_MainWindow.h"

#include <QFontMetrics>
#include <QPointer>
#include <QTest>

#include <algorithm>
#include <memory>
#include <type_traits>
#include <utility>

Q_DECLARE_METATYPE(QMargins)

namespace {

/// A window with slots that the toolkit connects by their names.
class NamedSlots : public QMainWindow
{
    Q_OBJECT

public:
    int presses = 0;
    int pages = 0;

private slots:
    void on_pushButton_clicked() { ++presses; }
    void on_tabWidget_currentChanged(int) { ++pages; }
};

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

class MainWindowFormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QApplication::setStyle(new OddStyle); }

    void init()
    {
        window = std::make_unique<QMainWindow>();
        form = std::make_unique<Ui_MainWindow>();
    }

    void cleanup()
    {
        window.reset();
        form.reset();
    }

    /// The holder is read as plain memory: one pointer after the other.
    void holdsOnePointerPerElementInOrder()
    {
        form->setupUi(window.get());
        QCOMPARE(sizeof(Ui_MainWindow),
                 static_cast<std::size_t>(formElements().size()) * sizeof(void *));
        const auto *pointers = reinterpret_cast<const void *const *>(form.get());
        const auto *title = element<QLayout>("horizontalLayout_2");
        QList<const void *> spacers{title->itemAt(0), title->itemAt(2)};
        for (const Element &each : formElements()) {
            const void *expected = each.name == nullptr ? spacers.takeFirst() : child(each.name);
            QVERIFY2(expected != nullptr, each.name);
            QVERIFY2(*pointers == expected, each.name == nullptr ? "a spacer" : each.name);
            ++pointers;
        }
    }

    void everyElementHasItsClassAndParent()
    {
        form->setupUi(window.get());
        QStringList expected;
        QStringList found;
        for (const Element &each : formElements()) {
            const QObject *object = each.name == nullptr ? nullptr : child(each.name);
            if (object != nullptr) {
                expected << QString("%1 %2 in %3").arg(each.className, each.name, each.parent);
                found << QString("%1 %2 in %3")
                             .arg(object->metaObject()->className(), each.name,
                                  object->parent()->objectName());
            }
        }
        QCOMPARE(found, expected);
    }

    void thereIsNoFurtherElement()
    {
        form->setupUi(window.get());
        QStringList expected = elementNames();
        QStringList found;
        for (const QObject *object : window->findChildren<QObject *>()) {
            const QString name = object->objectName();
            const bool toolkits = name.isEmpty() || name.startsWith("qt_") ||
                                  name.startsWith("_") || name.contains("ScrollButton") ||
                                  name.contains("ScrollLeft") || name.contains("ScrollRight");
            if (!toolkits) {
                found.append(name);
            }
        }
        std::sort(expected.begin(), expected.end());
        std::sort(found.begin(), found.end());
        QCOMPARE(found, expected);
    }

    void theWindowIsNamedUnlessItHasAName()
    {
        form->setupUi(window.get());
        QCOMPARE(window->objectName(), "MainWindow");

        QMainWindow named;
        named.setObjectName("mine");
        form->setupUi(&named);
        QCOMPARE(named.objectName(), "mine");
    }

    void theWindowIsSizedAndStyledBeforeItIsFilled()
    {
        QStringList seen;
        Adoptions adoptions;
        adoptions.atFirst = [&] {
            seen << window->objectName() << QString::number(window->width())
                 << QString::number(window->height()) << window->styleSheet();
        };
        form->setupUi(window.get());
        QCOMPARE(seen, QStringList(
                           {"MainWindow", "476", "374", "background-color: rgb(255, 255, 255);"}));
        QCOMPARE(window->styleSheet(), "background-color: rgb(255, 255, 255);");
    }

    void theTreeIsBuiltInOrder()
    {
        const Adoptions adoptions;
        form->setupUi(window.get());
        const QStringList expected{
            "MainWindow < centralWidget",
            "centralWidget < gridLayout",
            "centralWidget < label",
            "verticalLayout_2 < horizontalLayout_2",
            "verticalLayout < verticalLayout_2",
            "centralWidget < tabWidget",
            "tab < gridLayout_4",
            "tab < label_2",
            "gridLayout_4 < verticalLayout_6",
            "tab < label_3",
            "gridLayout_4 < verticalLayout_8",
            "tab < label_4",
            "gridLayout_4 < verticalLayout_9",
            "qt_tabwidget_stackedwidget < tab",
            "tab_2 < gridLayout_2",
            "tab_2 < listView",
            "qt_tabwidget_stackedwidget < tab_2",
            "tab_5 < gridLayout_3",
            "tab_5 < listView_2",
            "qt_tabwidget_stackedwidget < tab_5",
            "verticalLayout < verticalLayout_5",
            "centralWidget < pushButton",
            "horizontalLayout_3 < horizontalLayout_8",
            "centralWidget < pushButton_2",
            "horizontalLayout_3 < horizontalLayout_9",
            "verticalLayout < horizontalLayout_3",
            "gridLayout < verticalLayout",
        };
        QCOMPARE(adoptions.ofElements(), expected);
    }

    void theLayoutsHoldTheElementsInOrder()
    {
        form->setupUi(window.get());
        QCOMPARE(window->centralWidget(), element<QWidget>("centralWidget"));
        const QStringList central{
            "gridLayout spacing 6/6",
            "  verticalLayout spacing 6 at 0,0 spans 1,1",
            "    verticalLayout_2 spacing 6",
            "      horizontalLayout_2 spacing 6",
            "        spacer 40x20 Expanding Minimum",
            "        label",
            "        spacer 40x20 Expanding Minimum",
            "    verticalLayout_5 spacing 6",
            "      tabWidget",
            "    horizontalLayout_3 spacing 6",
            "      horizontalLayout_8 spacing 6",
            "        pushButton",
            "      horizontalLayout_9 spacing 6",
            "        pushButton_2",
        };
        QCOMPARE(describe(layoutOf("centralWidget")), central);
        const QStringList directions{
            "gridLayout_4 spacing 6/6",
            "  verticalLayout_6 spacing 6 at 0,0 spans 1,1",
            "    label_2",
            "  verticalLayout_8 spacing 6 at 1,0 spans 1,1",
            "    label_3",
            "  verticalLayout_9 spacing 6 at 2,0 spans 1,1",
            "    label_4",
        };
        QCOMPARE(describe(layoutOf("tab")), directions);
        QCOMPARE(describe(layoutOf("tab_2")),
                 QStringList({"gridLayout_2 spacing 6/6", "  listView at 0,0 spans 1,1"}));
        QCOMPARE(describe(layoutOf("tab_5")),
                 QStringList({"gridLayout_3 spacing 6/6", "  listView_2 at 0,0 spans 1,1"}));
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
        form->setupUi(window.get());
        auto *layout = element<QLayout>(QTest::currentDataTag());
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
        form->setupUi(window.get());
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
        form->setupUi(window.get());
        QApplication::setFont(usual);
        expected.setPointSize(15);
        QCOMPARE(element<QLabel>("label")->font().toString(), expected.toString());
    }

    void onlyTheDirectionsWrap()
    {
        form->setupUi(window.get());
        QVERIFY(!element<QLabel>("label")->wordWrap());
        for (const char *name : {"label_2", "label_3", "label_4"}) {
            QVERIFY2(element<QLabel>(name)->wordWrap(), name);
        }
    }

    void showsItsTexts()
    {
        form->setupUi(window.get());
        QCOMPARE(window->windowTitle(), "MainWindow");
        QCOMPARE(element<QLabel>("label")->text(), "Orvane Launcher");
        QCOMPARE(element<QLabel>("label_2")->text(), startDirections);
        QCOMPARE(element<QLabel>("label_3")->text(), closeDirections);
        QCOMPARE(element<QLabel>("label_4")->text(), restartDirections);
        QCOMPARE(element<DeployBtn>("pushButton")->text(), "Deploy Servicde");
        QCOMPARE(element<DeployBtn>("pushButton_2")->text(), "Stop Service");
    }

    void hasThreePagesAndShowsTheDirections()
    {
        form->setupUi(window.get());
        const auto *tabs = element<QTabWidget>("tabWidget");
        QCOMPARE(tabs->count(), 3);
        const QStringList titles{"Directions", "RPC Service", "Nginx"};
        const QStringList pages{"tab", "tab_2", "tab_5"};
        for (int i = 0; i < tabs->count(); ++i) {
            QCOMPARE(tabs->tabText(i), titles.at(i));
            QCOMPARE(tabs->widget(i), element<QWidget>(pages.at(i)));
        }
        QCOMPARE(tabs->currentIndex(), 0);
    }

    void translatesItsTextsInOrder()
    {
        const AskedTexts texts;
        form->setupUi(window.get());
        QStringList expected;
        for (const QString &text :
             {QString("MainWindow"), QString("Orvane Launcher"), startDirections, closeDirections,
              restartDirections, QString("Directions"), QString("RPC Service"), QString("Nginx"),
              QString("Deploy Servicde"), QString("Stop Service")}) {
            expected.append("MainWindow|none|-1|" + text);
        }
        QCOMPARE(texts.asked, expected);
    }

    /// What stands when the first text is asked for: all of the tree, and no text yet.
    void setsNoTextBeforeTheTreeStands()
    {
        AskedTexts texts;
        QStringList seen;
        bool first = true;
        texts.atText = [&](const QByteArray &) {
            if (!std::exchange(first, false)) {
                return;
            }
            const auto *tabs = element<QTabWidget>("tabWidget");
            seen << window->centralWidget()->objectName() << window->windowTitle()
                 << QString::number(layoutOf("centralWidget")->count())
                 << tabs->tabText(0) + tabs->tabText(1) + tabs->tabText(2)
                 << QString::number(tabs->count());
            for (const QLabel *label : window->findChildren<QLabel *>()) {
                seen << label->text();
            }
            for (const QPushButton *button : window->findChildren<QPushButton *>()) {
                seen << button->text();
            }
        };
        form->setupUi(window.get());
        QCOMPARE(seen, QStringList({"centralWidget", "", "1", "", "3", "", "", "", "", "", ""}));
    }

    void aTitleGoesToItsPageWhereverThatIs()
    {
        AskedTexts texts;
        texts.atText = [&](const QByteArray &source) {
            if (source == "Orvane Launcher") {
                element<QTabWidget>("tabWidget")->tabBar()->moveTab(0, 2);
            }
        };
        form->setupUi(window.get());
        const auto *tabs = element<QTabWidget>("tabWidget");
        QCOMPARE(tabs->widget(2), element<QWidget>("tab"));
        QCOMPARE(tabs->tabText(0), "RPC Service");
        QCOMPARE(tabs->tabText(1), "Nginx");
        QCOMPARE(tabs->tabText(2), "Directions");
    }

    void turnsToTheDirectionsAfterTheTexts()
    {
        AskedTexts texts;
        texts.atText = [&](const QByteArray &source) {
            if (source == "Stop Service") {
                element<QTabWidget>("tabWidget")->setCurrentIndex(1);
            }
        };
        form->setupUi(window.get());
        QCOMPARE(element<QTabWidget>("tabWidget")->currentIndex(), 0);
    }

    /// Slots that a window names for the form's elements are connected, after all else is done: the
    /// page that setupUi() turns last is not heard.
    void connectsSlotsByNameAtLast()
    {
        AskedTexts texts;
        NamedSlots named;
        texts.atText = [&](const QByteArray &) {
            named.findChild<QTabWidget *>("tabWidget")->setCurrentIndex(1);
        };
        form->setupUi(&named);
        QCOMPARE(named.pages, 0);
        named.findChild<QTabWidget *>("tabWidget")->setCurrentIndex(2);
        QCOMPARE(named.pages, 1);
        QTest::mousePress(named.findChild<DeployBtn *>("pushButton"), Qt::LeftButton);
        QCOMPARE(named.presses, 1);
    }

    void theHolderOwnsNothing()
    {
        QVERIFY(std::is_trivially_destructible_v<Ui_MainWindow>);
        form->setupUi(window.get());
        const QList<QObject *> all = window->findChildren<QObject *>();
        QList<QPointer<QObject>> watched;
        for (QObject *object : all) {
            watched.append(object);
        }
        form.reset();
        for (const QPointer<QObject> &object : watched) {
            QVERIFY(!object.isNull());
        }
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    }

    void opensAtItsSizeWithTheDirectionsInFront()
    {
        show();
        QCOMPARE(window->size(), QSize(476, 374));
        QVERIFY(element<QWidget>("tab")->isVisible());
        QVERIFY(!element<QWidget>("tab_2")->isVisible());
        QVERIFY(!element<QWidget>("tab_5")->isVisible());
    }

    void theDirectionsWrapToThePageWidth()
    {
        show();
        const int pageWidth = element<QWidget>("tab")->width();
        for (const char *name : {"label_2", "label_3", "label_4"}) {
            const auto *label = element<QLabel>(name);
            const QFontMetrics metrics(label->font());
            QCOMPARE(label->width(), pageWidth - 2 * 11);
            QVERIFY2(metrics.horizontalAdvance(label->text()) > label->width(), name);
            QVERIFY2(label->heightForWidth(label->width()) >= 2 * metrics.height(), name);
        }
    }

    void theTitleIsCentred()
    {
        show();
        const QRect title = element<QLabel>("label")->geometry();
        const QRect line = element<QLayout>("horizontalLayout_2")->geometry();
        const int left = title.left() - line.left();
        const int right = line.right() - title.right();
        QVERIFY2(qAbs(left - right) <= 1, qPrintable(QString("%1 %2").arg(left).arg(right)));
        QVERIFY(left > 40);
    }

    void theButtonsSitSideBySideAtTheBottom()
    {
        show();
        const QRect area = element<QLayout>("verticalLayout")->geometry();
        const QRect deploy = element<QWidget>("pushButton")->geometry();
        const QRect stop = element<QWidget>("pushButton_2")->geometry();
        QCOMPARE(deploy.left() - area.left(), 14);
        QCOMPARE(area.right() - stop.right(), 14);
        QCOMPARE(stop.left() - deploy.right() - 1, 6);
        QCOMPARE(deploy.top(), stop.top());
        QCOMPARE(deploy.bottom(), area.bottom());
        QCOMPARE(stop.bottom(), area.bottom());
        QVERIFY(deploy.top() > element<QWidget>("tabWidget")->geometry().bottom());
    }

private:
    template <typename Class>
    Class *element(const QString &name) const
    {
        return window->findChild<Class *>(name);
    }
    QObject *child(const QString &name) const { return element<QObject>(name); }
    QLayout *layoutOf(const QString &widget) const { return element<QWidget>(widget)->layout(); }

    void show()
    {
        form->setupUi(window.get());
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    }

    std::unique_ptr<QMainWindow> window;
    std::unique_ptr<Ui_MainWindow> form;
};

QTEST_MAIN(MainWindowFormTest)
#include "MainWindowFormTest.moc"
