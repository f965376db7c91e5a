#pragma once

#include <QStringList>
#include <QStringListModel>
#include <string>

/// The sink that both controllers share: appends @p msg (UTF-8) to @p messages and shows the whole
/// list in @p view, if there is one. An empty message is dropped. GUI thread or reader thread.
template <typename View>
void showMessage(const std::string &msg, QStringList &messages, View *view)
{
    if (msg.empty()) {
        return;
    }
    const QString text = QString::fromStdString(msg);
    if (view == nullptr) {
        messages.append(text);
        return;
    }
    // The GUI thread may release the controller's list at any instruction of the reader's sink, and
    // must not free what is used here. So the rows grow in a list of their own, and the one that
    // the swap takes out of the controller, which the model before shares, is never released.
    auto *rows = new QStringList(messages);
    rows->append(text);
    // A new model for every message is how the view is refreshed. No model is ever deleted: the
    // view may still be painting the one before on the GUI thread.
    auto *model = new QStringListModel(*rows);
    messages.swap(*rows);
    view->setModel(model);
    view->emitUpdate();
}
