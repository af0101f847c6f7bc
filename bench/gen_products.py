#!/usr/bin/env python3
"""Lays out N products for the end-to-end benchmark in DIR:
  DIR/fixtures/<media>/default.xml   a ~5 KB reply: 10 updates, 5 news (one news id shared by all)
  DIR/home/vasko/tav/db/{guid}.ini   the product records
  DIR/requests/<i>.xml               the SOAP body the plug-in posts for product i
  DIR/curl.cfg                       the same posts for one curl process (one kept-alive connection)
usage: gen_products.py DIR N URL"""
import hashlib
import hmac
import os
import sys

# The service's copy of the clients' key (the simulator checks the HMAC of the login).
KEY = bytes.fromhex(
    "a10d225f5c8c4624cdbe3edf1babdefa8178df5cfaad440c20c9bbcb1958cbd7"
    "f9a5a2a6415858bbc39e5063022f3deba2990419d7bdcd1dcec98df73a221ddb")

NS = "urn:vasko:kep:registration:1"
ENVELOPE = (
    '<soap:Envelope xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"'
    '               xmlns:xsd="http://www.w3.org/2001/XMLSchema"'
    '               xmlns:soap="http://schemas.xmlsoap.org/soap/envelope/">'
    '  <soap:Header>'
    '    <AuthHeader xmlns="' + NS + '">'
    '      <Login>{media}</Login>'
    '      <Password>{password}</Password>'
    '    </AuthHeader>'
    '  </soap:Header>'
    '  <soap:Body>'
    '    <GetTAVProductInfo xmlns="' + NS + '">'
    '      <mediaID>{media}</mediaID>'
    '      <updateID>1</updateID>'
    '      <showTestUpdate>n</showTestUpdate>'
    '    </GetTAVProductInfo>'
    '  </soap:Body></soap:Envelope>')


def reply(i):
    parts = ['<?xml version="1.0" encoding="UTF-8"?>\n<product_info>\n'
             '<return_code>0</return_code><format>2.0</format>\n<updates>\n']
    for u in range(10):
        uid = i * 10 + u + 1
        parts.append(
            f'<update><id>{uid}</id><title>Product {i} update {u}</title>'
            f'<description>Fixes and improvements for product {i}, update {u}.</description>'
            f'<update_id>{uid}</update_id>'
            f'<download_url>https://dl.example.invalid/p{i}/u{u}.tar.gz</download_url>'
            f'<download_file_name>u{u}.tar.gz</download_file_name><download_size>10485760</download_size>'
            f'<publish_date>2014-03-07T10:20:30</publish_date><media_id>M{i:05d}</media_id>'
            f'<package_name>p{i}-u{u}</package_name>'
            f'<related_updates><id>{uid + 1}</id></related_updates></update>\n')
    parts.append('</updates>\n<product_news>\n')
    for n in range(5):
        nid = 'N-common' if n == 0 else f'N{i}-{n}'
        parts.append(f'<message><id>{nid}</id><title>News {n} of product {i}</title>'
                     f'<description>Announcement {n} about product {i} and its next release.</description>'
                     f'<publish_date>2014-03-07</publish_date></message>\n')
    parts.append('</product_news>\n</product_info>\n')
    return ''.join(parts)


def main():
    root, count, url = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    db = os.path.join(root, 'home', 'vasko', 'tav', 'db')
    for sub in (db, os.path.join(root, 'sysdb'), os.path.join(root, 'requests'), os.path.join(root, 'fixtures')):
        os.makedirs(sub, exist_ok=True)
    cfg = []
    for i in range(count):
        media = f'M{i:05d}'
        os.makedirs(os.path.join(root, 'fixtures', media), exist_ok=True)
        with open(os.path.join(root, 'fixtures', media, 'default.xml'), 'w') as out:
            out.write(reply(i))
        guid = f'{{B3C0FFEE-{i:04X}-4000-8000-{i:012d}}}'
        with open(os.path.join(db, guid + '.ini'), 'w') as out:
            out.write(f'[General]\nProductName=Product {i}\nProductVersion=1.0\nMediaID={media}\n'
                      f'ProductID=P{i}\nUpdateID=1\nOwnerProductCode=\nAutoUninstallMode=0\n')
        password = hmac.new(KEY, media.encode(), hashlib.sha256).hexdigest()
        request = os.path.join(root, 'requests', f'{i}.xml')
        with open(request, 'w') as out:
            out.write(ENVELOPE.format(media=media, password=password))
        if cfg:
            cfg.append('next')
        cfg += [f'url = "{url}"', 'header = "Content-Type: text/xml;charset=utf-8"',
                f'data-binary = "@{request}"', 'output = "/dev/null"', 'silent', 'show-error', 'fail']
    with open(os.path.join(root, 'curl.cfg'), 'w') as out:
        out.write('\n'.join(cfg) + '\n')


if __name__ == '__main__':
    main()
