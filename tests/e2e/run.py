#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""run.py FOLDER TREE PREFIX [MACHINE...]: boots the machines, as many at once as there are processors, prints each
case's result, and writes FOLDER/report.html and FOLDER/cases.xml. It fails when a case has failed. TREE is the build
with the programs of the cases, PREFIX where the server was installed below FOLDER/root. MACHINE: layers, bochs,
cirrus, vesa, systemd, socket, sysv; all without any."""
import concurrent.futures
import os
import sys
import traceback

import boot_cases
import layer_cases
import screen_cases
from guest import GuestError
from machine import Build
from report import Report, write_counts, write_page

# The longest first.
MACHINES = {'layers': layer_cases.layers, 'bochs': screen_cases.bochs, 'cirrus': screen_cases.cirrus,
            'systemd': boot_cases.systemd, 'socket': boot_cases.socket, 'vesa': screen_cases.vesa, 'sysv': boot_cases.sysv}


def run(build, name):
    report = Report(name)
    try:
        MACHINES[name](build, report)
    except GuestError as error:
        report.check(f'{name}: the machine runs to its end', False, str(error))
    except Exception:  # a fault of the case itself has passed nothing either
        report.check(f'{name}: the case runs to its end', False, traceback.format_exc())
    report.end()
    return report


def main():
    folder, tree, prefix, *names = sys.argv[1:]
    build = Build(folder, tree, prefix, os.path.dirname(os.path.abspath(__file__)))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        reports = list(pool.map(lambda name: run(build, name), names or MACHINES))
    for report in reports:
        print(*report.measured, sep='\n', end='\n' if report.measured else '')
    write_page(os.path.join(folder, 'report.html'), reports)
    write_counts(os.path.join(folder, 'cases.xml'), reports)
    return 1 if any(report.failures() for report in reports) else 0


if __name__ == '__main__':
    sys.exit(main())
