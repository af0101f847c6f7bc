#!/usr/bin/env python3
"""Where tav-host's resident memory goes: an empty database and 1,000 products, each run's mappings
sampled every 10 ms, the largest sample split into the libraries' pages (and those of the
libraries only libcurl brings) and the heap. Prints markdown.
usage: memory.py BIN_DIR WORK_DIR [--quick]"""
import collections
import functools
import os
import subprocess
import sys
import time

from e2e import Layout


def libcurl_only(bin_dir):
    """File names of libcurl and the libraries nothing else of the host's loads."""
    def needs(path):
        out = subprocess.run(['ldd', path], capture_output=True, text=True).stdout
        return {line.split()[2] for line in out.splitlines() if '=>' in line and len(line.split()) > 2}
    core = os.path.join(os.path.dirname(bin_dir), 'lib', 'libtavcore.shared.so.1')
    curl = next(path for path in needs(core) if os.path.basename(path).startswith('libcurl'))
    others = set()
    for path in needs(os.path.join(bin_dir, 'tav-host')) - needs(curl) - {curl, core}:
        others |= needs(path) | {path}
    return {os.path.basename(os.path.realpath(path)) for path in (needs(curl) | {curl}) - others}


@functools.lru_cache(maxsize=None)
def file_name(path):
    return os.path.basename(os.path.realpath(path))


def resident(pid, curl_libs):
    kinds = collections.Counter()
    kind = None
    try:
        with open(f'/proc/{pid}/smaps') as smaps:
            for line in smaps:
                parts = line.split()
                if '-' in parts[0] and not parts[0].endswith(':'):
                    name = parts[5] if len(parts) > 5 else ''
                    kind = ('libcurl' if file_name(name) in curl_libs else 'file') \
                        if name.startswith('/') else 'anon'
                elif parts[0] == 'Rss:':
                    kinds[kind] += int(parts[1])
    except (OSError, IndexError):
        return None
    return kinds


def peak(layout, curl_libs):
    """Peak RSS in KiB and the largest sample's split."""
    argv = [os.path.join(layout.bin_dir, 'tav-host'), '--set', 'KepWebServiceUrl=' + layout.url,
            '--set', 'ShowTestUpdates=0']
    proc = subprocess.Popen(argv, env=layout.env, cwd=os.path.join(layout.root, 'work'),
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    best = collections.Counter()
    while True:
        kinds = resident(proc.pid, curl_libs)
        if kinds and sum(kinds.values()) > sum(best.values()):
            best = kinds
        pid, _, usage = os.wait4(proc.pid, os.WNOHANG)
        if pid:
            return usage.ru_maxrss, best
        time.sleep(0.01)


def main():
    bin_dir, work = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    rounds = 1 if '--quick' in sys.argv else 3
    curl_libs = libcurl_only(bin_dir)
    mb = lambda kib: f'{kib / 1024:.1f} MB'
    print('### Peak memory: where it goes\n')
    print(f'Peak RSS: the largest of {rounds} runs. Each run\'s mappings are sampled every 10 ms; '
          f'"libcurl\'s libraries": libcurl and the {len(curl_libs) - 1} libraries only it brings in '
          '(code and data pages, mostly shared and clean).\n')
    print('| products | peak RSS | at the largest sample: libraries | of which libcurl\'s | heap and other anonymous |')
    print('|---:|---:|---:|---:|---:|')
    for count in (0, 1000):
        layout = Layout(bin_dir, os.path.join(work, f'm{count}'), count)
        layout.ours()  # warm-up: the reply cache, the page cache
        runs = [peak(layout, curl_libs) for _ in range(rounds)]
        layout.close()
        top, best = max(runs, key=lambda run: sum(run[1].values()))
        # A run over an empty database is over before most samples: its split is left out.
        split = [mb(best['file'] + best['libcurl']), mb(best['libcurl']), mb(best['anon'])] \
            if sum(best.values()) > 0.9 * top else ['-'] * 3
        print(f'| {count} | {mb(max(run[0] for run in runs))} | ' + ' | '.join(split) + ' |')
    print()


if __name__ == '__main__':
    main()
