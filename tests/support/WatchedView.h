#pragma once

#include <QPointer>
#include <QStringListModel>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// A list view that remembers every model that was installed through the virtual setModel(), and on
/// which thread.
template <typename View>
class WatchedView : public View
{
public:
    using View::View;

    void setModel(QAbstractItemModel *model) override
    {
        View::setModel(model);
        {
            const std::lock_guard<std::mutex> lock(mutex);
            models.emplace_back(model);
            threads.push_back(std::this_thread::get_id());
        }
        if (atModel) {
            atModel();
        }
    }

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

    /// Run after a model was installed, on the same thread.
    std::function<void()> atModel;

private:
    mutable std::mutex mutex;
    std::vector<QPointer<QAbstractItemModel>> models;
    std::vector<std::thread::id> threads;
};

/// The rows of a list of strings; none for another model, or for no model.
inline QStringList rowsOf(const QAbstractItemModel *model)
{
    const auto *list = qobject_cast<const QStringListModel *>(model);
    return list == nullptr ? QStringList() : list->stringList();
}
