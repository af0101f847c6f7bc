#!/usr/bin/env python3
"""Link benchmark: tav-host and curl, alternating, posting the same N envelopes through a delay
relay (bench/delayrelay.py) in front of kep-sim, at several round-trip times, over HTTP and HTTPS.
Prints markdown. usage: link.py BIN_DIR WORK_DIR [--quick]"""
import os
import statistics
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from delayrelay import DelayRelay  # noqa: E402
from e2e import start_sim, stop, timed  # noqa: E402

N = 50
RTTS = [0, 20, 50]


def make_certs(work):
    certs = os.path.join(work, 'certs')
    subprocess.run([os.path.join(HERE, '..', 'tools', 'kep-sim', 'make-test-certs.sh'), certs], check=True)
    return certs


class Link:
    """kep-sim (plain or TLS) behind a delay relay, N products pointing at the relay."""

    def __init__(self, bin_dir, root, certs=None):
        self.bin_dir, self.root, self.certs = bin_dir, root, certs
        tls = ['--tls', os.path.join(certs, 'server.pem'), os.path.join(certs, 'server.key')] if certs else []
        self.sim, sim_url = start_sim(bin_dir, os.path.join(root, 'fixtures'), extra=tls)
        self.relay = DelayRelay(int(sim_url.rsplit(':', 1)[1].strip('/')))
        self.url = f'{"https" if certs else "http"}://127.0.0.1:{self.relay.port}/'
        subprocess.run([sys.executable, os.path.join(HERE, 'gen_products.py'), root, str(N), self.url], check=True)
        self.curl_cfg = os.path.join(root, 'curl.cfg')
        if certs:
            # Options hold until the next "next": every URL gets the CA.
            with open(self.curl_cfg) as cfg:
                lines = cfg.read().splitlines()
            cacert = f'cacert = "{os.path.join(certs, "ca.pem")}"'
            with open(self.curl_cfg, 'w') as out:
                out.write('\n'.join(line + ('\n' + cacert if line.startswith('url = ') else '') for line in lines) + '\n')
        os.makedirs(os.path.join(root, 'work'), exist_ok=True)
        self.env = dict(os.environ, HOME=os.path.join(root, 'home'), TAV_SYSTEM_DB_DIR=os.path.join(root, 'sysdb'),
                        XDG_CACHE_HOME=os.path.join(root, 'home', '.cache'), QT_QPA_PLATFORM='offscreen')

    def _counted(self, argv, env=None):
        self.relay.reset_counts()
        seconds, _, status = timed(argv, env, os.path.join(self.root, 'work'))
        if status != 0:
            raise SystemExit(f'{argv[0]} failed with status {status}')
        return seconds, self.relay.connections, self.relay.handshakes

    def ours(self):
        argv = [os.path.join(self.bin_dir, 'tav-host'), '--set', 'KepWebServiceUrl=' + self.url,
                '--set', 'ShowTestUpdates=0']
        if self.certs:
            argv += ['--ca-file', os.path.join(self.certs, 'ca.pem')]
        return self._counted(argv, self.env)

    def curl(self):
        return self._counted(['curl', '-K', self.curl_cfg])

    def transport(self):
        argv = [os.path.join(self.bin_dir, 'bench_transport'), self.url, os.path.join(self.root, 'requests'), str(N)]
        if self.certs:
            argv.append(os.path.join(self.certs, 'ca.pem'))
        return self._counted(argv, self.env)

    def fixed_cost(self):
        """tav-host's own start and end: a run over an empty database asks nothing."""
        empty = os.path.join(self.root, 'empty')
        os.makedirs(os.path.join(empty, 'sysdb'), exist_ok=True)
        env = dict(self.env, HOME=empty, TAV_SYSTEM_DB_DIR=os.path.join(empty, 'sysdb'),
                   XDG_CACHE_HOME=os.path.join(empty, '.cache'))
        argv = [os.path.join(self.bin_dir, 'tav-host'), '--set', 'KepWebServiceUrl=' + self.url]
        if self.certs:
            argv += ['--ca-file', os.path.join(self.certs, 'ca.pem')]
        return statistics.median(timed(argv, env, empty)[0] for _ in range(7))

    def close(self):
        stop(self.sim)


def main():
    bin_dir, work = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    rounds = 3 if '--quick' in sys.argv else 6
    os.makedirs(work, exist_ok=True)
    certs = make_certs(work)
    rows = []
    for scheme, link_certs in (('HTTP', None), ('HTTPS', certs)):
        link = Link(bin_dir, os.path.join(work, scheme.lower()), link_certs)
        fixed = link.fixed_cost()
        for rtt in RTTS:
            link.relay.set_rtt(rtt)
            link.ours()  # warm-up: the reply cache, the page cache
            link.curl()
            got = {'ours': [], 'curl': [], 'transport': []}
            for r in range(rounds):
                order = [link.curl, link.ours, link.transport]
                for run in order[r % 3:] + order[:r % 3]:
                    got[run.__name__].append(run())
            rows.append((scheme, rtt, fixed, got))
        link.close()

    ms = lambda seconds: seconds * 1000
    print('### Over a link: tav-host and curl through a delay relay\n')
    print(f'{N} products, each direction of the relay delayed by RTT/2 (bench/delayrelay.py) in front of kep-sim '
          f'(`--tls` for HTTPS); {rounds} alternating rounds, medians, (min .. max) in brackets. Floor: '
          f'(N + 1) x RTT. Connections and TLS handshakes as the relay counted them in each run '
          f'(tav-host / curl; every run the same unless a range is shown). "transport": bench_transport, the '
          f'host\'s network access manager alone posting the same envelopes in one process, with its ratio '
          f'to curl. "fixed cost out": tav-host\'s time less its fixed cost (start, plug-in, exit: a run over '
          f'an empty database, given per link).\n')
    print('| link | tav-host | curl | tav-host / curl | transport / curl | per product: tav-host, curl '
          '| per product, fixed cost out | floor | connections | TLS handshakes |')
    print('|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|')
    for scheme, rtt, fixed, got in rows:
        ours = [t for t, _, _ in got['ours']]
        curl = [t for t, _, _ in got['curl']]
        transport = [t for t, _, _ in got['transport']]
        ratios = [o / c for o, c in zip(ours, curl)]
        alone = [t / c for t, c in zip(transport, curl)]

        def counts(index):
            def span(runs):
                values = sorted({run[index] for run in runs})
                return str(values[0]) if len(values) == 1 else f'{values[0]}..{values[-1]}'
            return f'{span(got["ours"])} / {span(got["curl"])}'

        print(f'| {scheme}, RTT {rtt} ms | {ms(statistics.median(ours)):.0f} ms '
              f'({ms(min(ours)):.0f} .. {ms(max(ours)):.0f}) | {ms(statistics.median(curl)):.0f} ms '
              f'({ms(min(curl)):.0f} .. {ms(max(curl)):.0f}) | {statistics.median(ratios):.2f} '
              f'({min(ratios):.2f} .. {max(ratios):.2f}) | {statistics.median(alone):.2f} '
              f'({min(alone):.2f} .. {max(alone):.2f}) | {ms(statistics.median(ours)) / N:.1f} ms, '
              f'{ms(statistics.median(curl)) / N:.1f} ms | {ms(statistics.median(ours) - fixed) / N:.1f} ms '
              f'(fixed {ms(fixed):.0f} ms) | {(N + 1) * rtt} ms | {counts(1)} | '
              f'{counts(2) if scheme == "HTTPS" else "-"} |')
    print()


if __name__ == '__main__':
    main()
