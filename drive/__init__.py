"""Drives the launcher from outside: for the demonstration, the tests, the soak and the benchmarks.

    bundle     stages an orvane.app: the built one, one with throw-away services, nginx alone
    desktop    a virtual X server, the launcher's window in it, real clicks
    assistive  a desktop with accessibility switched on, a client that walks a window there
    browser    a real browser that looks at the sample page
    processes  waiting, and which processes there are

Nothing here knows the launcher's code. What is started is ended by its process id when its `with`
block is left, on failure and on Ctrl-C too. `isolated` gives a command ports of its own, and
`landmarks` tells where the widgets lie.
"""
