# SPDX-License-Identifier: MIT
"""The cases' results: a line each as they come, and a page with what was on the screen beside what was expected."""
import html
import time

import pictures

STYLE = '''body { font-family: sans-serif; margin: 2em } table { border-collapse: collapse }
td, th { border: 1px solid #999; padding: .5em; vertical-align: top; text-align: left } img { width: 380px }
.OK { background: #cfc } .FAIL { background: #fcc } pre { white-space: pre-wrap; margin: 0 }'''


class Report:
    def __init__(self):
        self.rows = []
        self.failures = 0
        self.start = time.monotonic()

    def check(self, name, ok, text='', images=()):
        """One case's result. `images`: (actual, expected) or nothing."""
        word = 'OK' if ok else 'FAIL'
        self.failures += not ok
        self.rows.append((name, word, text, images))
        print(f'{word:4} {name}' + (f': {text}' if text and not ok else ''), flush=True)
        return ok

    def picture(self, name, actual, expected, depth, text=''):
        """Compares what a panel of that depth shows."""
        actual, expected = actual.masked(depth), expected.masked(depth)
        same = actual == expected
        if not same:
            _, count = pictures.difference(actual, expected)
            text += ' the sizes differ' if count is None else f' {count} pixels differ'
        return self.check(name, same, text.strip(), (actual, expected))

    def counts(self):
        return f'{len(self.rows) - self.failures} OK, {self.failures} FAIL, {time.monotonic() - self.start:.0f} s'

    def write(self, path):
        rows = ''.join(_row(*row) for row in self.rows)
        with open(path, 'w') as file:
            file.write(f'<!DOCTYPE html><meta charset="utf-8"><title>On an emulated machine</title><style>{STYLE}</style>'
                       f'<h1>On an emulated machine</h1><p>{self.counts()}</p><table><tr><th>case<th>on the screen'
                       f'<th>expected<th>difference</tr>{rows}</table>\n')


def _row(name, word, text, images):
    cells = f'<td class="{word}"><b>{word}</b> {html.escape(name)}<pre>{html.escape(text)}</pre>'
    if images:
        actual, expected = images
        picture, _ = pictures.difference(actual, expected)
        for image in (actual, expected, picture):
            cells += f'<td><img src="{image.data_url()}">' if image else '<td>'
    else:
        cells += '<td><td><td>'
    return f'<tr>{cells}</tr>\n'
