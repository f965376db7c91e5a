"""Measures the launcher against its floors; scripts/bench builds everything and calls this.

    subject   the launcher, or its floor, driven and timed from outside
    rows      the rows of the table
    runners   the process runners next to us
    report    what is written down
"""
