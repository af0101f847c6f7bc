#!/usr/bin/env python3
"""Cancel latency: tav-host asks one product of a kep-sim that holds every answer for 10 s and
cancels after C ms from a third thread. getData's return is not visible from outside, so the
latency is estimated as the run's wall time minus C minus the wall time of a run that starts,
finds no product and exits. Prints markdown.
usage: cancel.py BIN_DIR WORK_DIR [--quick]"""
import os
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from e2e import HERE, start_sim, stop, timed  # noqa: E402

CANCEL_AFTER_MS = 100


def main():
    bin_dir, work = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    tries = 20 if '--quick' in sys.argv else 100
    # Two products: the one in flight is abandoned and the second is never asked (status 2).
    fixtures = os.path.join(work, 'fixtures')
    slow, slow_url = start_sim(bin_dir, fixtures, delay_ms=10000)
    try:
        subprocess.run([sys.executable, os.path.join(HERE, 'gen_products.py'), work, '2', slow_url], check=True)
        os.makedirs(os.path.join(work, 'work'), exist_ok=True)
        env = dict(os.environ, HOME=os.path.join(work, 'home'), TAV_SYSTEM_DB_DIR=os.path.join(work, 'sysdb'),
                   XDG_CACHE_HOME=os.path.join(work, 'home', '.cache'), QT_QPA_PLATFORM='offscreen')
        empty = dict(env, HOME=os.path.join(work, 'empty'))
        os.makedirs(empty['HOME'], exist_ok=True)
        host = os.path.join(bin_dir, 'tav-host')

        def run(url, cancel, environment=env):
            argv = [host, '--set', 'KepWebServiceUrl=' + url, '--set', 'ShowTestUpdates=0']
            if cancel:
                argv += ['--cancel-after', str(CANCEL_AFTER_MS)]
            return timed(argv, environment, os.path.join(work, 'work'))

        run(slow_url, False, empty)
        latencies, statuses = [], set()
        for _ in range(tries):
            base, _, _ = run(slow_url, False, empty)
            wall, _, status = run(slow_url, True)
            statuses.add(status)
            latencies.append((wall - base) * 1000 - CANCEL_AFTER_MS)
    finally:
        stop(slow)
    print('### Cancel latency\n')
    print(f'{tries} tries, request in flight (kep-sim --delay-ms 10000), cancel after {CANCEL_AFTER_MS} ms; '
          f'exit statuses seen: {sorted(statuses)}. Estimate per try: wall time of the cancelled run minus '
          f'{CANCEL_AFTER_MS} ms minus the wall time of a run that finds no product '
          f'(start-up and exit), so process start-up noise is in it both ways.\n')
    print(f'| median | max | min |\n|---:|---:|---:|\n| {statistics.median(latencies):.1f} ms | '
          f'{max(latencies):.1f} ms | {min(latencies):.1f} ms |\n')


if __name__ == '__main__':
    main()
