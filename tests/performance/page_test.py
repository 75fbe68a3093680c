#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""page_test.py SOURCE - what bench/e2e/report.py makes of a small run of two rounds, recorded in this folder: the page,
its plots, what it marks and when it fails. Each case changes what it is about in the recorded measures."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

SOURCE = pathlib.Path(sys.argv[1])
RECORDED = pathlib.Path(__file__).resolve().parent


def by_round(**times):
    """Measures of processor time: {'round0': nanoseconds, ...}"""
    return [{'round': int(name.removeprefix('round')), 'cpu_ns': ns, 'waits': 1} for name, ns in times.items()]


class Page(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.results = pathlib.Path(self.folder.name)
        self.path = self.results / 'page.md'
        self.found = json.loads((RECORDED / 'results.json').read_text())
        (self.results / 'kernels.json').write_text((RECORDED / 'kernels.json').read_text())
        table = subprocess.run([SOURCE / 'bench' / 'kernels.py', self.results / 'kernels.json'],
                               stdout=subprocess.PIPE, text=True, check=True).stdout
        (self.results / 'kernels.txt').write_text(table)

    def write(self, succeeds=True):
        """The page's text; what was printed goes to self.said."""
        (self.results / 'results.json').write_text(json.dumps(self.found))
        done = subprocess.run([SOURCE / 'bench' / 'e2e' / 'report.py', self.results, self.path], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                              env=dict(os.environ, PYTHONDONTWRITEBYTECODE='1'))
        self.said = done.stdout
        self.assertEqual(done.returncode == 0, succeeds, self.said)
        return self.path.read_text() if self.path.exists() else None

    def row(self, text, heading, name):
        """The cells of the first row of that name below a heading."""
        below = text[text.index(heading):]
        return [cell.strip() for cell in re.search(rf'^\| {re.escape(name)} \|(.*)\|$', below, re.M)[1].split('|')]

    def missed(self, text):
        return re.findall(r'^- (.*)$', text[text.index('## Goals'):], re.M)

    def test_plots_are_there_and_whole(self):
        text = self.write()
        named = re.findall(r'!\[[^]]+\]\(([^)]+)\)', text)
        self.assertEqual(sorted(named), sorted(f'page/{name}.svg' for name in (
            'cpu', 'latency', 'memory', 'start', 'surfaces', 'clients', 'size', 'reports', 'kernels')))
        for path in named:
            plot = ElementTree.parse(self.results / path).getroot()
            self.assertTrue(plot.tag.endswith('svg'), path)
        words = {element.text for element in ElementTree.parse(self.results / 'page/cpu.svg').iter()}
        for name in ('fbserver', 'floor, 1 copy', 'floor, 2 copies', 'tuned floor', 'draining floor', 'Xvfb', 'Weston'):
            self.assertIn(name, words)

    def test_points_are_where_their_figures_are(self):
        self.found['reports'] = {n: by_round(round0=ns, round1=ns)
                                 for n, ns in (('100', 1000), ('1000', 1500), ('10000', 2000))}
        self.write()
        plot = (self.results / 'page/reports.svg').read_text()
        frame = re.search(r'class="frame" d="M([0-9]+),([0-9]+)V([0-9]+)H([0-9]+)"', plot)
        left, top, bottom, right = map(int, frame.groups())
        line = re.search(r'class="line"[^>]* d="M([^"]+)"', plot)[1]
        points = [tuple(map(float, point.split(','))) for point in line.split('L')]
        # On a logarithmic axis from 100 to 10 000, and one from 0 to 2.
        middle = (top + bottom) / 2
        self.assertEqual(points, [(left, middle), ((left + right) / 2, (top + middle) / 2), (right, top)])

    def test_a_missed_ratio_is_marked_and_listed(self):
        cpu = self.found['cpu']['one']['one']
        cpu['pfb'] = by_round(round0=2000, round1=4000)
        cpu['floor2'] = by_round(round0=1000, round1=2000)
        cpu['xvfb'] = by_round(round0=4000, round1=8000)
        text = self.write()
        heading = '| fbserver as a fraction of'
        self.assertEqual(self.row(text, '### One processor', 'one at a time')[0], '3.00 (2.00 – 4.00)')
        self.assertEqual(self.row(text, heading, 'one at a time')[0], '2.00! (2.00 – 2.00)')
        self.assertEqual(self.row(text, heading, 'one at a time')[3], '0.50 (0.50 – 0.50)')
        what = 'processor time, one processor, one at a time, beside '
        self.assertIn(what + 'floor, 2 copies: 2.00, the goal is 1.15', self.missed(text))
        self.assertFalse([one for one in self.missed(text) if one.startswith(what + 'Xvfb')])

    def test_a_goal_that_is_just_met_is_no_miss(self):
        cpu = self.found['cpu']['one']['one']
        cpu['pfb'] = by_round(round0=1154, round1=1154)
        cpu['floor2'] = by_round(round0=1000, round1=1000)
        text = self.write()
        self.assertEqual(self.row(text, '| fbserver as a fraction of', 'one at a time')[0], '1.15 (1.15 – 1.15)')

    def test_only_the_same_round_is_compared(self):
        cpu = self.found['cpu']['two']['paced']
        cpu['pfb'] = by_round(round0=100, round1=400)
        cpu['weston'] = by_round(round1=1000)
        text = self.write()
        below = text[text.index('### Two processors'):]
        self.assertEqual(self.row(below, '| fbserver as a fraction of', '60 a second')[4], '0.40 (0.40 – 0.40)')

    def test_the_window_and_the_better_floors_are_not_judged(self):
        for name in ('window', 'one'):
            cpu = self.found['cpu']['one'][name]
            cpu['pfb'] = by_round(round0=9000, round1=9000)
            for other in ('floor2tuned', 'floor2draining') if name == 'one' else ('floor2', 'xvfb'):
                cpu[other] = by_round(round0=1000, round1=1000)
        text = self.write()
        self.assertNotIn('!', ''.join(self.row(text, '| fbserver as a fraction of', '16 in flight, a window')))
        better = self.row(text, '| fbserver as a fraction of', 'one at a time')[1:3]
        self.assertEqual(better, ['9.00 (9.00 – 9.00)'] * 2)
        self.assertFalse([one for one in self.missed(text) if 'window' in one or 'tuned' in one or 'draining' in one])

    def test_as_many_marks_as_misses(self):
        text = self.write()
        pages = text[:text.index('## Pixel loops')]
        ours = [one for one in self.missed(text) if not one.startswith('pixel loops')]
        self.assertEqual(len(re.findall(r'\d!', pages)), len(ours))
        self.assertGreater(len(ours), 0)
        self.assertIn(f', {len(self.missed(text))} missed.', text)

    def test_what_the_pixel_loops_missed_is_listed_with_the_rest(self):
        text = self.write()
        loops = [one for one in self.missed(text) if one.startswith('pixel loops')]
        self.assertEqual(len(loops), 2)
        self.assertIn('32_to_32_90 1920x1080: avx2 is', loops[0])
        table = text[text.index('## Pixel loops'):text.index('## Instructions')]
        self.assertIn('over_random', table)
        self.assertIn('medians of 2\nrepetitions', table)
        self.assertNotIn('goals reached', table)

    def test_a_table_that_does_not_say_what_it_reached(self):
        (self.results / 'kernels.txt').write_text('case\n')
        self.write(succeeds=False)
        self.assertIn('does not say what was reached', self.said)

    def test_every_part_has_to_be_there(self):
        for part in ('memory', 'cpu', 'latency', 'size', 'clients', 'surfaces', 'reports', 'start', 'fairness',
                     'recovery'):
            kept = self.found.pop(part)
            self.assertIsNone(self.write(succeeds=False))
            self.assertIn(f'not measured: {part}', self.said)
            self.found[part] = kept

    def test_few_rounds_are_told(self):
        self.assertIn('**Taken with fewer rounds', self.write())
        self.found['whole'] = self.found['rounds']
        self.assertNotIn('fewer rounds', self.write())

    def test_an_update_that_is_not_seen(self):
        flood = self.found['fairness']['800x480']['garbage'][1]
        flood['late_ns'].pop()
        flood['waiting_ns'].pop()
        text = self.write(succeeds=False)
        self.assertIn('fairness, 800x480, garbage, updates that were not seen: 1', self.said)
        self.assertEqual(self.row(text, '## Fairness', '800x480, garbage')[1], '3 of 4!')

    def test_one_late_update_of_the_server(self):
        flood = self.found['fairness']['480x272']['garbage'][0]
        flood['late_ns'], flood['waiting_ns'] = [1000000, 90000000], [0, 50000000]
        text = self.write(succeeds=False)
        self.assertIn('fairness, 480x272, garbage, late by the server: 40.0 ms, the goal is 33 ms', self.said)
        self.assertEqual(self.row(text, '## Fairness', '480x272, garbage')[6], '40.0!')

    def test_what_the_kernel_made_late_is_not_the_servers(self):
        flood = self.found['fairness']['480x272']['garbage'][0]
        flood['late_ns'], flood['waiting_ns'] = [1000000, 90000000], [0, 60000000]
        self.write()

    def test_memory_beyond_pixels(self):
        screen, mib = 480 * 272 * 4, 1024 * 1024
        first, fifth = ({'Anonymous': screen + anonymous * mib, 'Rss': 3 * screen + resident * mib}
                        for anonymous, resident in ((.5, 2), (1, 7)))
        self.found['memory']['pfb'] = [{'round': 0, 'first': first, 'fifth': fifth}]
        text = self.write()
        self.assertEqual(self.row(text, '## Memory', 'fbserver'), [
            '0.50 (0.50 – 0.50)', '1.00! (1.00 – 1.00)', '2.00 (2.00 – 2.00)', '7.00! (7.00 – 7.00)'])
        self.assertIn('memory, all resident, fifth client: 7.00 MiB, the goal is 6 MiB', self.missed(text))


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
