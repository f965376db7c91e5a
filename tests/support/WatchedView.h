#pragma once

#include <QEvent>
#include <QPointer>
#include <QStringListModel>
#include <QTest>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// A list that remembers every model that was installed through the virtual setModel(), and on
/// which thread, and counts how often it repaints.
template <typename View>
class WatchedView : public View
{
public:
    using View::View;

    struct Installed
    {
        QPointer<QStringListModel> model; ///< null for a model of another class
        std::thread::id thread;
    };
    std::vector<Installed> installed() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return all;
    }
    std::size_t count() const { return installed().size(); }
    /// The rows of the model that was installed last.
    QStringList rows() const
    {
        const auto models = installed();
        const QStringListModel *last = models.empty() ? nullptr : models.back().model;
        return last == nullptr ? QStringList() : last->stringList();
    }

    /// Run after a model was installed, on the same thread.
    std::function<void()> atModel;

    void setModel(QAbstractItemModel *model) override
    {
        View::setModel(model);
        {
            const std::lock_guard<std::mutex> lock(mutex);
            all.push_back({qobject_cast<QStringListModel *>(model), std::this_thread::get_id()});
        }
        if (atModel) {
            atModel();
        }
    }

    /// Shows the list, and returns whether that came about.
    bool showSettled()
    {
        View::show();
        const bool exposed = QTest::qWaitForWindowExposed(this);
        settle();
        return exposed;
    }
    /// Paints what there is to paint, and starts to count the repaints anew.
    void settle()
    {
        View::repaint();
        repaints = 0;
    }
    int repaints = 0;

    bool event(QEvent *event) override
    {
        repaints += event->type() == QEvent::Paint ? 1 : 0;
        return View::event(event);
    }

private:
    mutable std::mutex mutex;
    std::vector<Installed> all;
};
