#pragma once

constexpr int sitePort = 4200; // of nginx, which serves the page
constexpr int rpcPort = 4201;  // of this server

/// The listening socket of 127.0.0.1:@p port; -1, and errno, when another program keeps the port.
/// A server of the same bundle whose launcher is gone gives it away. Call it once, at the start.
int takePort(int port);
