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
    messages.append(QString::fromStdString(msg));
    if (view == nullptr) {
        return;
    }
    // A new model for every message is how the view is refreshed. No model is ever deleted: the
    // view may still be painting the one before on the GUI thread.
    view->setModel(new QStringListModel(messages));
    view->emitUpdate();
}
