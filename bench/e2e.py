#!/usr/bin/env python3
"""Process-level benchmarks: tav-host against kep-sim beside curl making the same posts over one
kept-alive connection, alternating, plus scaling and peak memory. Prints markdown.
usage: e2e.py BIN_DIR WORK_DIR [--quick]"""
import os
import re
import signal
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def start_sim(bin_dir, fixtures, delay_ms=0, extra=()):
    os.makedirs(fixtures, exist_ok=True)
    proc = subprocess.Popen([os.path.join(bin_dir, 'kep-sim'), '--fixtures', fixtures, '--port', '0',
                             '--delay-ms', str(delay_ms), *extra],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    line = proc.stdout.readline()
    match = re.match(r'kep-sim listening on (\S+)', line)
    if not match:
        proc.kill()
        raise SystemExit('kep-sim did not start: ' + line)
    return proc, match.group(1)


def stop(proc):
    proc.send_signal(signal.SIGTERM)
    try:
        proc.wait(timeout=10)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


def timed(argv, env=None, cwd=None, stdout=subprocess.DEVNULL):
    """Wall seconds, peak resident KiB and exit status of one child process."""
    started = time.perf_counter()
    proc = subprocess.Popen(argv, env=env, cwd=cwd, stdout=stdout, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(proc.pid, 0)
    elapsed = time.perf_counter() - started
    proc.returncode = os.waitstatus_to_exitcode(status)
    return elapsed, usage.ru_maxrss, proc.returncode


class Layout:
    def __init__(self, bin_dir, root, count):
        self.bin_dir, self.root, self.count = bin_dir, root, count
        self.sim, self.url = start_sim(bin_dir, os.path.join(root, 'fixtures'))
        subprocess.run([sys.executable, os.path.join(HERE, 'gen_products.py'), root, str(count), self.url], check=True)
        os.makedirs(os.path.join(root, 'work'), exist_ok=True)
        self.env = dict(os.environ, HOME=os.path.join(root, 'home'), TAV_SYSTEM_DB_DIR=os.path.join(root, 'sysdb'),
                        XDG_CACHE_HOME=os.path.join(root, 'home', '.cache'), QT_QPA_PLATFORM='offscreen')

    def ours(self, answer=None):
        argv = [os.path.join(self.bin_dir, 'tav-host'), '--set', 'KepWebServiceUrl=' + self.url,
                '--set', 'ShowTestUpdates=0']
        if answer:
            with open(answer, 'wb') as out:
                return timed(argv, self.env, os.path.join(self.root, 'work'), out)
        return timed(argv, self.env, os.path.join(self.root, 'work'))

    def curl(self):
        return timed(['curl', '-K', os.path.join(self.root, 'curl.cfg')])

    def close(self):
        stop(self.sim)


def spread(values, fmt):
    return f'{fmt(statistics.median(values))} ({fmt(min(values))} .. {fmt(max(values))})'


def main():
    bin_dir, work = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    quick = '--quick' in sys.argv
    rounds = {100: 7, 1000: 9, 10000: 3} if not quick else {100: 3, 1000: 2, 10000: 1}
    sizes = [100, 1000, 10000]

    # The fixed cost of one host run: start, load the plug-in, read an empty database, exit.
    empty = Layout(bin_dir, os.path.join(work, 'e0'), 0)
    empty.ours()
    fixed = statistics.median(empty.ours()[0] for _ in range(5))
    empty.close()

    results = {}
    for count in sizes:
        layout = Layout(bin_dir, os.path.join(work, f'e{count}'), count)
        answer = os.path.join(layout.root, 'answer.xml')
        # Warm-up: creates the reply cache, fills the page cache; its answer is checked.
        _, _, status = layout.ours(answer)
        text = open(answer, encoding='utf-8').read()
        updates, news = text.count('<update>'), text.count('<message>')
        if status != 0 or updates != 10 * count or news != 4 * count + 1:
            raise SystemExit(f'{count} products: status {status}, {updates} updates, {news} news')
        if layout.curl()[2] != 0:
            raise SystemExit('curl failed')
        ours, curl, rss = [], [], []
        for r in range(rounds[count]):
            pair = [layout.curl, layout.ours] if r % 2 == 0 else [layout.ours, layout.curl]
            got = {}
            for run in pair:
                got[run.__name__] = run()
            ours.append(got['ours'][0])
            rss.append(got['ours'][1])
            curl.append(got['curl'][0])
        results[count] = (ours, curl, rss)
        layout.close()

    ms = lambda v: f'{v * 1000:.0f} ms'
    print('### End to end: tav-host against kep-sim, beside curl making the same posts\n')
    print(f'Replies of about 5.8 KB (10 updates, 5 news each). Median of alternating rounds, '
          f'(min .. max) in brackets. Fixed cost of one host run (empty database): {fixed * 1000:.0f} ms.\n')
    print('| products | rounds | tav-host | curl | ratio tav-host/curl | overhead per product '
          '| per product, fixed cost removed | peak RSS |')
    print('|---:|---:|---:|---:|---:|---:|---:|---:|')
    per_product = {}
    for count in sizes:
        ours, curl, rss = results[count]
        ratios = [o / c for o, c in zip(ours, curl)]
        overhead = [(o - c) / count * 1000 for o, c in zip(ours, curl)]
        marginal = [(o - fixed) / count * 1000 for o in ours]
        per_product[count] = statistics.median(marginal)
        print(f'| {count} | {len(ours)} | {spread(ours, ms)} | {spread(curl, ms)} | '
              f'{spread(ratios, lambda v: f"{v:.2f}")} | {spread(overhead, lambda v: f"{v:.3f} ms")} | '
              f'{spread(marginal, lambda v: f"{v:.3f} ms")} | {max(rss) / 1024:.1f} MB |')
    print()
    growth = per_product[10000] / per_product[100]
    print(f'Scaling: per-product time (fixed cost removed) at 10,000 products is {growth:.2f} times '
          f'the one at 100 (goal: at most 1.3).\n')


if __name__ == '__main__':
    main()
