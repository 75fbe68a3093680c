# SPDX-License-Identifier: MIT
"""The cases' results: a line each as they come, a page with what was on the screen beside what was expected, and the
counts for scripts/count-tests."""
import html
import time
import xml.etree.ElementTree as ElementTree

import pictures

STYLE = '''body { font-family: sans-serif; margin: 2em } table { border-collapse: collapse }
td, th { border: 1px solid #999; padding: .5em; vertical-align: top; text-align: left } img { width: 380px }
.OK { background: #cfc } .FAIL { background: #fcc } pre { white-space: pre-wrap; margin: 0 }'''


class Report:
    """The results on one machine."""

    def __init__(self, machine):
        self.machine = machine
        self.rows = []
        self.measured = []  # lines for the reader
        self.seconds = 0.0
        self._start = time.monotonic()

    def check(self, name, ok, text='', images=()):
        """One case's result. `images`: (actual, expected) or nothing."""
        word = 'OK' if ok else 'FAIL'
        self.rows.append((name, word, text, images))
        print(f'{word:4} {name}' + (f': {text}' if text and not ok else '') + '\n', end='', flush=True)
        return ok

    def picture(self, name, actual, expected, depth, text=''):
        """Compares what a panel of that depth shows."""
        actual, expected = actual.masked(depth), expected.masked(depth)
        same = actual == expected
        if not same:
            _, count = pictures.difference(actual, expected)
            text += ' the sizes differ' if count is None else f' {count} pixels differ'
        return self.check(name, same, text.strip(), (actual, expected))

    def end(self):
        self.seconds = time.monotonic() - self._start

    def failures(self):
        return sum(word != 'OK' for _, word, _, _ in self.rows)


def write_page(path, reports):
    measured = ''.join(f'<p>{html.escape(line)}</p>' for report in reports for line in report.measured)
    rows = ''.join(f'<tr><th colspan="4">{html.escape(report.machine)}, {report.seconds:.0f} s</tr>' +
                   ''.join(_row(*row) for row in report.rows) for report in reports)
    many, failed = sum(len(report.rows) for report in reports), sum(report.failures() for report in reports)
    with open(path, 'w') as file:
        file.write(f'<!DOCTYPE html><meta charset="utf-8"><title>On emulated machines</title><style>{STYLE}</style>'
                   f'<h1>On emulated machines</h1><p>{many - failed} passed, {failed} failed</p>{measured}<table>'
                   f'<tr><th>case<th>on the screen<th>expected<th>difference</tr>{rows}</table>\n')


def _row(name, word, text, images):
    cells = f'<td class="{word}"><b>{word}</b> {html.escape(name)}<pre>{html.escape(text)}</pre>'
    if images:
        actual, expected = images
        picture, count = pictures.difference(actual, expected)
        cells += f'<td><img src="{actual.data_url()}"><td><img src="{expected.data_url()}">'
        cells += '<td>none' if count == 0 else f'<td><img src="{picture.data_url()}">' if picture else '<td>the sizes differ'
    else:
        cells += '<td><td><td>'
    return f'<tr>{cells}</tr>\n'


def write_counts(path, reports):
    """In the form of a GoogleTest report."""
    root = ElementTree.Element('testsuites')
    for report in reports:
        suite = ElementTree.SubElement(root, 'testsuite', name=report.machine)
        for name, word, text, _ in report.rows:
            case = ElementTree.SubElement(suite, 'testcase', name=name, status='run', result='completed')
            if word != 'OK':
                ElementTree.SubElement(case, 'failure', message=''.join(c if c.isprintable() else ' ' for c in text))
    ElementTree.ElementTree(root).write(path)
