#include "services/Nginx.h"

#include "services/MessageList.h"
#include "ui/NginxQListView.h"

#include <cstdlib>

void Nginx::insertMsg(std::string msg)
{
    showMessage(msg, messages, view);
}

void Nginx::setUi(NginxQListView *v)
{
    view = v;
    const std::string path = getBasePath() + "/nginx/sbin/nginx";
    const std::string command = "cd " + getBasePath() + "/nginx && sbin/nginx";
    insertMsg(path);
    makeProgress(path, command);
    launchRequest();
}

void Nginx::abolish()
{
    if (!getStatus()) {
        return;
    }
    const std::string command = "cd " + getBasePath() + "/nginx && sbin/nginx -s stop";
    // Whatever the stop command answers, the destructor's kill comes next.
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): the command is the bundle's own
    [[maybe_unused]] const int status = std::system(command.c_str());
}
