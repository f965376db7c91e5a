#pragma once

#include <QPointer>
#include <QStringListModel>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Remembers every model that was installed in a view through the virtual setModel(), and on which
/// thread.
class Watch
{
public:
    std::size_t count() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return models.size();
    }
    QPointer<QAbstractItemModel> modelAt(std::size_t i) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return models.at(i);
    }
    std::thread::id threadOf(std::size_t i) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return threads.at(i);
    }
    /// The rows of the model installed last.
    QStringList rows() const { return count() == 0 ? QStringList() : rowsAt(count() - 1); }
    /// The rows of a list of strings; none for another model.
    QStringList rowsAt(std::size_t i) const
    {
        const auto *list = qobject_cast<const QStringListModel *>(modelAt(i));
        return list == nullptr ? QStringList() : list->stringList();
    }

    /// Run after a model was installed, on the same thread.
    std::function<void()> atModel;

protected:
    void installed(QAbstractItemModel *model)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            models.emplace_back(model);
            threads.push_back(std::this_thread::get_id());
        }
        if (atModel) {
            atModel();
        }
    }

private:
    mutable std::mutex mutex;
    std::vector<QPointer<QAbstractItemModel>> models;
    std::vector<std::thread::id> threads;
};

template <typename View>
class WatchedView : public View, public Watch
{
public:
    using View::View;

    void setModel(QAbstractItemModel *model) override
    {
        View::setModel(model);
        installed(model);
    }
};
