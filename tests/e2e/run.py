#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""run.py BUILD_FOLDER [CASES...]: boots the machines one after the other, prints each case's result, writes
BUILD_FOLDER/report.html, and fails when a case has failed. CASES: bochs, vesa, cirrus, layers; all without any."""
import os
import sys

import layer_cases
import screen_cases
from guest import GuestError
from machine import Build
from report import Report

MACHINES = {'bochs': screen_cases.bochs, 'vesa': screen_cases.vesa, 'cirrus': screen_cases.cirrus,
            'layers': layer_cases.layers}


def main():
    build = Build(sys.argv[1], os.path.dirname(os.path.abspath(__file__)))
    report = Report()
    for name in sys.argv[2:] or MACHINES:
        try:
            measured = MACHINES[name](build, report)
        except GuestError as error:
            report.check(f'{name}: the machine runs to its end', False, str(error))
            continue
        if measured is not None:
            print('first picture %.0f ms after the server\'s start, %d kB resident (emulated processor)' % measured)
    path = os.path.join(build.folder, 'report.html')
    report.write(path)
    print(report.counts() + ', ' + path)
    return 1 if report.failures else 0


if __name__ == '__main__':
    sys.exit(main())
