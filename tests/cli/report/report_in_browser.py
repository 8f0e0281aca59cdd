#!/usr/bin/python3
"""The report of tremora-map, opened from disk in headless Chromium through WebDriver.

Usage: report_in_browser.py TREMORA_MAP WORK_DIR [--demo CLIP --screenshot PNG]

Makes clips with motion at known seconds, runs the tool with --report, and checks the page
as a user would meet it: no console errors, a card per input in name order, the times a
click on a map lists, the video seeking to a chosen time, the activity chart read second by
second with the keyboard, and a name full of characters that HTML and URLs treat specially.
It also checks that a run in steady light marks a scene change on the chart and counts it,
and that a run with zones lists them on the card with their figures (names shown as text)
and outlines them on the map, and that a zone drawn on a map, with the mouse and with the
keys, gives the JSON of that polygon, which the tool takes back as a zone of the same pixels.
With --screenshot, keeps a screenshot of that chart with the mouse on the mark (PNG's name
ending in -scene-change.png); with --demo too, a screenshot of the report of that clip, and
one of its chart read with the keys beside it (PNG's name ending in -chart-keys.png). Exits 0 when every check
passed, 1 with the first failure otherwise (a browser that does not start is a failure: the
test command installs it).
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import time

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

SIZE = (160, 120)
# A white square in the top-left corner shows for a moment at 2.5 s and at 6.5 s: motion
# begins in its cells in seconds 2 and 6, and the bottom-right corner never moves.
HOT_PIXEL = (20, 20)
QUIET_PIXEL = (150, 110)
HOT_SECONDS = [2, 6]
# When make_clip's clips say they were recorded.
RECORDED = "2024-05-01T10:00:00Z"
SPECIAL_NAME = "a <b> & c #1 %20 \"q\" 'é' 雪.mp4"


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def make_clip(path, extra=(), recorded=RECORDED):
    subprocess.run(
        ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-y", "-f", "lavfi", "-i",
         "color=c=0x505050:s=%dx%d:d=10:r=25,format=yuv420p,"
         "drawbox=x=8:y=8:w=24:h=24:color=white:t=fill:"
         "enable='between(t,2.5,2.7)+between(t,6.5,6.7)'" % SIZE,
         "-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "25", "-crf", "12",
         "-metadata", "creation_time=" + recorded, *extra, path],
        check=True)


def make_scene_change_clip(path):
    """Ten seconds of grey in which, from 4 s on, the left 60 % of the picture changes: its top
    half 80 brighter, its bottom half 80 darker. Taking out the median difference leaves 60 %
    of the pixels moving in the pair at 4 s, a scene change in steady light. The white square
    of make_clip still shows at 2.5 s and 6.5 s, drawn over the change."""
    left = SIZE[0] * 6 // 10
    half = SIZE[1] // 2
    subprocess.run(
        ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-y", "-f", "lavfi", "-i",
         "color=c=0x505050:s=%dx%d:d=10:r=25,format=gray,"
         "drawbox=x=0:y=0:w=%d:h=%d:color=0xA0A0A0:t=fill:enable='gte(t,4)',"
         "drawbox=x=0:y=%d:w=%d:h=%d:color=black:t=fill:enable='gte(t,4)',"
         "drawbox=x=8:y=8:w=24:h=24:color=white:t=fill:enable='between(t,2.5,2.7)+between(t,6.5,6.7)'"
         % (SIZE[0], SIZE[1], left, half, half, left, SIZE[1] - half),
         "-c:v", "ffv1", "-pix_fmt", "gray", "-metadata", "creation_time=" + RECORDED, path],
        check=True)


def make_demo_clip(path):
    # The clip scripts/run shows, made by the same function.
    root = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", ".."))
    made = subprocess.run(["bash", "-c", 'source "$1/scripts/lib/common.sh" && demo_clip', "bash", root],
                          capture_output=True, text=True, check=True).stdout.strip()
    check(os.path.abspath(made) == os.path.abspath(path), "the demo clip is made at %s, not %s" % (made, path))


def run_tool(tool, args):
    return subprocess.run([tool, "--quiet", *args], capture_output=True, text=True)


def browser(window=(1280, 1000)):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                 "--autoplay-policy=no-user-gesture-required", "--window-size=%d,%d" % window):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def wait_for(driver, script, timeout=10.0):
    end = time.time() + timeout
    while time.time() < end:
        value = driver.execute_script(script)
        if value:
            return value
        time.sleep(0.05)
    raise Failure("timed out waiting for: " + script)


def console_errors(driver):
    return [e for e in driver.get_log("browser") if e.get("level") == "SEVERE"]


def click_video_pixel(driver, card, pixel):
    img = card.find_element(By.CSS_SELECTOR, ".map img")
    driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", img)
    width = img.size["width"]
    height = img.size["height"]
    # Offsets are from the element's centre.
    dx = (pixel[0] + 0.5) / SIZE[0] * width - width / 2
    dy = (pixel[1] + 0.5) / SIZE[1] * height - height / 2
    ActionChains(driver).move_to_element_with_offset(img, dx, dy).click().perform()


def listed_seconds(driver, card_id, expect_hint=True):
    script = ("var c = document.getElementById('%s');"
              "var h = c.querySelector('.times .hint').textContent;"
              "return /time|No motion/.test(h) ? h : null;" % card_id)
    wait_for(driver, script)
    return driver.execute_script(
        "return Array.from(document.querySelectorAll('#%s .time-list a'))"
        ".map(a => [Number(a.dataset.second), a.textContent, a.getAttribute('href')]);" % card_id)


def activity_rows(report, key):
    """The seconds of a card's chart, read from the data file the page loads."""
    with open(os.path.join(report, "data", key + ".activity.js"), encoding="utf-8") as f:
        match = re.fullmatch(r'Tremora\.data\("([^"]+)", (.*)\);\s*', f.read(), re.S)
    check(match and match.group(1) == key + ".activity", "the activity file of card %s is a data script" % key)
    return {row[0]: row for row in json.loads(match.group(2))["seconds"]}


def clock(second):
    return ("%d:%02d:%02d" % (second // 3600, second // 60 % 60, second % 60) if second >= 3600
            else "%d:%02d" % (second // 60, second % 60))


def chart_state(driver, card_id):
    return driver.execute_script(
        "var c = document.getElementById(arguments[0]), t = c.querySelector('.chart .tip'),"
        " s = c.querySelector('.chart [role=slider]'), h = c.querySelector('.chart .hover');"
        "return {tip: t.hidden ? null : t.textContent, now: s.getAttribute('aria-valuenow'),"
        " text: s.getAttribute('aria-valuetext'), line: h.getAttribute('visibility') === 'visible'"
        " ? Number(h.getAttribute('x1')) : null, focused: document.activeElement === s};", card_id)


def tab_to_chart(driver, card):
    """From the card's map, Tab on until the chart has the focus, past the times and the player."""
    driver.execute_script("arguments[0].focus()", card.find_element(By.CSS_SELECTOR, ".map img"))
    slider = card.find_element(By.CSS_SELECTOR, ".chart [role=slider]")
    for _ in range(20):
        if driver.execute_script("return document.activeElement === arguments[0]", slider):
            return
        ActionChains(driver).send_keys(Keys.TAB).perform()
    raise Failure("Tab does not reach the chart of card %s" % card.get_attribute("id"))


def check_chart_keys_show_each_seconds_values(driver, card, report, recorded):
    """Tab reaches the chart; the arrows, Home and End move its line and tip a second at a time
    and the slider's value text follows; leaving the chart hides them."""
    card_id = card.get_attribute("id")
    rows = activity_rows(report, card.get_attribute("data-key"))
    last = max(rows) + 1
    check(rows.get(2, [2, 0, 0])[1] > 0 and rows.get(6, [6, 0, 0])[1] > 0,
          "the clip moves in seconds 2 and 6: %r" % rows)

    def expected(second):
        row = rows.get(second, [second, 0, 0])
        wall = driver.execute_script("return new Date(Date.parse(arguments[0]) + arguments[1] * 1000).toLocaleTimeString()",
                                     recorded, second)
        return "%s (%s) · %d moving pixels · %d new events" % (clock(second), wall, row[1], row[2])

    def press(*keys):
        ActionChains(driver).send_keys(*keys).perform()

    def shows(second, what):
        state = chart_state(driver, card_id)
        check(state["focused"], "the chart keeps the focus %s" % what)
        check(state["tip"] == expected(second), "%s the tip reads %r, got %r" % (what, expected(second), state["tip"]))
        check(state["now"] == str(second) and state["text"] == expected(second).replace(" · ", ", "),
              "%s the slider's value is second %d: %r" % (what, second, state))
        check(state["line"] is not None and abs(state["line"] - (second + 0.5) / last * 1000) < 0.01,
              "%s the line stands on second %d: %r" % (what, second, state))
        return state["line"]

    # Out of the mouse's way, so that only the keys move the line.
    ActionChains(driver).move_to_element(card.find_element(By.CSS_SELECTOR, "h2")).perform()
    tab_to_chart(driver, card)
    shows(0, "reached with Tab,")
    check(driver.execute_script("var s = document.querySelector('#%s .chart [role=slider]');"
                                "return s.matches(':focus-visible') && getComputedStyle(s).outlineStyle !== 'none';"
                                % card_id), "the chart shows that it has the keyboard's focus")

    press(Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
    at_two = shows(2, "after Right twice")
    press(*[Keys.ARROW_RIGHT] * 4)
    at_six = shows(6, "after Right four more times")
    check(at_six > at_two, "the line moves right with the key: %r, %r" % (at_two, at_six))
    press(Keys.END)
    shows(last - 1, "after End")
    press(Keys.ARROW_RIGHT)
    shows(last - 1, "past the end")
    press(Keys.ARROW_LEFT)
    shows(last - 2, "after Left")
    press(Keys.HOME)
    shows(0, "after Home")
    press(Keys.ARROW_LEFT)
    shows(0, "before the start")

    ActionChains(driver).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
    state = chart_state(driver, card_id)
    check(not state["focused"] and state["tip"] is None and state["line"] is None,
          "leaving the chart hides its line and tip: %r" % state)
    errors = console_errors(driver)
    check(not errors, "console errors: %r" % errors)


def card_by_title(driver, title):
    for card in driver.find_elements(By.CSS_SELECTOR, ".card"):
        if card.find_element(By.CSS_SELECTOR, "h2").text == title:
            return card
    raise Failure("no card titled %r" % title)


def check_report(tool, work):
    videos = os.path.join(work, "videos")
    os.makedirs(videos)
    hot = os.path.join(videos, "corner.mp4")
    make_clip(hot)
    special = os.path.join(videos, SPECIAL_NAME)
    shutil.copy(hot, special)
    broken = os.path.join(videos, "broken.mp4")
    with open(broken, "w") as f:
        f.write("not a video\n")
    report = os.path.join(work, "report")
    result = run_tool(tool, ["-o", os.path.join(work, "maps"), "--report", report, broken, special, hot])
    check(result.returncode == 1, "a run with one broken input exits 1, got %d: %s" % (result.returncode, result.stderr))
    check(os.path.isfile(os.path.join(report, "index.html")), "the report is written beside a failed input")
    check("broken.mp4" in result.stderr, "the broken input is named on standard error")

    driver = browser()
    try:
        driver.get("file://" + os.path.join(report, "index.html"))
        wait_for(driver, "return document.readyState === 'complete'")
        titles = [h.text for h in driver.find_elements(By.CSS_SELECTOR, ".card h2")]
        check(titles == sorted(titles, key=str.lower) and len(titles) == 3,
              "one card per input, sorted by name: %r" % titles)
        check(set(titles) == {"broken.mp4", "corner.mp4", SPECIAL_NAME}, "card titles: %r" % titles)

        failed = card_by_title(driver, "broken.mp4")
        check("Failed" in failed.find_element(By.CSS_SELECTOR, ".outcome").text, "a failed input shows its error")

        for title in ("corner.mp4", SPECIAL_NAME):
            card = card_by_title(driver, title)
            card_id = card.get_attribute("id")
            link = card.find_element(By.CSS_SELECTOR, "h2 a")
            href = link.get_property("href")
            check(driver.execute_script("return decodeURIComponent(new URL(arguments[0]).pathname)", href)
                  == os.path.join(videos, title), "the link of %r leads to the video: %s" % (title, href))
            img = card.find_element(By.CSS_SELECTOR, ".map img")
            check(title in img.get_attribute("alt"), "the map's alt text names the video")
            # Images and charts load as their card comes into view.
            driver.execute_script("arguments[0].scrollIntoView()", card)
            wait_for(driver, "return document.querySelector('#%s img').naturalWidth === %d" % (card_id, SIZE[0]))
            wait_for(driver, "return document.querySelector('#%s .chart svg') !== null" % card_id)

            click_video_pixel(driver, card, HOT_PIXEL)
            listed = listed_seconds(driver, card_id)
            check([s for s, _, _ in listed] == HOT_SECONDS, "the hot corner of %r lists %r" % (title, listed))
            check([t for _, t, _ in listed] == ["0:02", "0:06"], "times read as clock times: %r" % listed)
            marks = driver.execute_script("return document.querySelectorAll('#%s .chart .mark').length" % card_id)
            check(marks == len(HOT_SECONDS), "the chart marks each listed time, got %d" % marks)

            click_video_pixel(driver, card, QUIET_PIXEL)
            check(listed_seconds(driver, card_id) == [], "the quiet corner of %r lists no time" % title)

        # Jump to the moment: the second listed time of the plain clip.
        card = card_by_title(driver, "corner.mp4")
        card_id = card.get_attribute("id")
        click_video_pixel(driver, card, HOT_PIXEL)
        listed_seconds(driver, card_id)
        card.find_elements(By.CSS_SELECTOR, ".time-list a")[1].click()
        wait_for(driver, "var v = document.querySelector('#%s video');"
                 "return v && v.readyState >= 1 && !v.seeking && v.currentTime >= 6 && v.currentTime < 7;" % card_id)
        check(driver.execute_script("return document.querySelector('#%s video').error" % card_id) is None,
              "the browser plays the clip")

        # The container's creation time: shown, and the times read as clock times too.
        figures = card.find_element(By.CSS_SELECTOR, ".figures").text
        check("2024-05-01T10:00:00" in figures, "the card shows when the video was recorded: %r" % figures)
        wall = driver.execute_script("return new Date(Date.parse('2024-05-01T10:00:06Z')).toLocaleTimeString()")
        titles = driver.execute_script(
            "return Array.from(document.querySelectorAll('#%s .time-list a')).map(a => a.title);" % card_id)
        check(titles[1] == wall, "the time 0:06 reads as %r on the clock, got %r" % (wall, titles))
        start = driver.execute_script("return new Date(Date.parse('2024-05-01T10:00:00Z')).toLocaleTimeString()")
        key = card.find_element(By.CSS_SELECTOR, ".chart .legend-key").text
        check(start in key and "0:00 – 0:10" in key, "the chart spans 0:10 from %r: %r" % (start, key))

        # Hovering the chart shows the time and the values there: the square shows at 2.5 s.
        svg = card.find_element(By.CSS_SELECTOR, ".chart svg")
        ActionChains(driver).move_to_element_with_offset(svg, svg.size["width"] * (2.5 / 10 - 0.5), 0).perform()
        tip = wait_for(driver, "var t = document.querySelector('#%s .chart .tip');"
                       "return t && !t.hidden ? t.textContent : null;" % card_id)
        check(tip.startswith("0:02 ") and "moving pixels" in tip and "new events" in tip, "the chart's tip: %r" % tip)
        check(not tip.startswith("0:02 · 0 moving"), "the tip shows the motion of second 2: %r" % tip)

        check_chart_keys_show_each_seconds_values(driver, card, report, RECORDED)

        # Keyboard: the map takes the focus, Enter lists the times of the cell under the cursor.
        img = card.find_element(By.CSS_SELECTOR, ".map img")
        driver.execute_script("arguments[0].focus()", img)
        for _ in range(8):
            img.send_keys(Keys.ARROW_LEFT)
        for _ in range(8):
            img.send_keys(Keys.ARROW_UP)
        img.send_keys(Keys.ENTER)
        listed = listed_seconds(driver, card_id)
        check([s for s, _, _ in listed] == HOT_SECONDS, "Enter on the top-left cell lists %r" % listed)

        # Busy cells come as bits; the page reads both of the tool's forms.
        decoded = driver.execute_script(
            "return [Tremora.decodeSeconds('~q'), Tremora.decodeSeconds('2+2,86'), Tremora.decodeSeconds('~AAqC')];")
        check(decoded == [[1, 3, 5], [2, 3, 4, 90], [13, 15, 17, 19]], "the page decodes times: %r" % decoded)

        errors = console_errors(driver)
        check(not errors, "console errors: %r" % errors)

        # A narrow viewport stacks the card: the side column sits below the map.
        driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                               {"width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True})
        wait_for(driver, "return document.documentElement.clientWidth === 390")
        below = driver.execute_script(
            "var c = document.getElementById('%s');"
            "return c.querySelector('.side').getBoundingClientRect().top >="
            " c.querySelector('.map img').getBoundingClientRect().bottom - 1;" % card_id)
        check(below, "on a narrow screen the figures come below the map")
        # With the chart's tip showing at its last second, where it is pushed furthest left.
        slider = card.find_element(By.CSS_SELECTOR, ".chart [role=slider]")
        driver.execute_script("arguments[0].scrollIntoView({block: 'center'}); arguments[0].focus()", slider)
        ActionChains(driver).send_keys(Keys.END).perform()
        check(chart_state(driver, card_id)["tip"], "the chart's tip shows on a narrow screen")
        clear = driver.execute_script(
            "var c = document.getElementById('%s');"
            "return c.querySelector('.chart .tip').getBoundingClientRect().top >="
            " c.querySelector('.chart .legend-key').getBoundingClientRect().bottom;" % card_id)
        check(clear, "on a narrow screen the chart's tip leaves its legend readable")
        wide = driver.execute_script(
            "var out = []; document.querySelectorAll('body *').forEach(function (e) {"
            " var b = e.getBoundingClientRect(); if (b.right > document.documentElement.clientWidth + 0.5)"
            " out.push(e.tagName + '.' + e.className + ': ' + Math.round(b.right)); }); return out;")
        check(not wide, "nothing sticks out sideways on a narrow screen: %r" % wide)
    finally:
        driver.quit()

    # An earlier report is replaced only when asked.
    again = run_tool(tool, ["-o", os.path.join(work, "maps2"), "--report", report, hot])
    check(again.returncode == 2 and "--overwrite" in again.stderr, "an earlier report is kept: %s" % again.stderr)
    check(not os.path.exists(os.path.join(work, "maps2")), "nothing is analysed when the report is refused")


def open_report(driver, report):
    driver.get("file://" + os.path.join(report, "index.html"))
    wait_for(driver, "return document.readyState === 'complete'")


def show_card(driver, card_id):
    card = driver.find_element(By.ID, card_id)
    driver.execute_script("arguments[0].scrollIntoView()", card)
    wait_for(driver, "return document.querySelector('#%s img').naturalWidth === %d" % (card_id, SIZE[0]))
    wait_for(driver, "return document.querySelector('#%s .chart svg') !== null" % card_id)
    return card


def listed_parts(driver, card_id):
    return driver.execute_script(
        "return Array.from(document.querySelectorAll('#%s .time-list a'))"
        ".map(a => [Number(a.dataset.line), Number(a.dataset.second), a.dataset.part]);" % card_id)


def check_slice_cards_list_the_times_of_their_slice(tool, work):
    """Slices of 5 s of the clip: each slice's card lists only the times in it."""
    hot = os.path.join(work, "videos", "corner.mp4")
    report = os.path.join(work, "slice-report")
    result = run_tool(tool, ["-o", os.path.join(work, "slice-maps"), "--slice", "5s", "--report", report, hot])
    check(result.returncode == 0, "a sliced run with a report: %s" % result.stderr)
    driver = browser()
    try:
        open_report(driver, report)
        check(len(driver.find_elements(By.CSS_SELECTOR, ".card")) == 3, "a card for the video and one per slice")
        for card_id, expected, span in (("card-s1", [2], "0:00 – 0:05"), ("card-s2", [6], "0:05 – 0:10")):
            card = show_card(driver, card_id)
            click_video_pixel(driver, card, HOT_PIXEL)
            listed = listed_seconds(driver, card_id)
            check([s for s, _, _ in listed] == expected, "slice %s lists %r, not %r" % (card_id, listed, expected))
            key = card.find_element(By.CSS_SELECTOR, ".chart .legend-key").text
            check(span in key, "the chart of %s spans its slice %s: %r" % (card_id, span, key))
        # The whole video's card still lists both.
        card = show_card(driver, "card-1")
        click_video_pixel(driver, card, HOT_PIXEL)
        check([s for s, _, _ in listed_seconds(driver, "card-1")] == HOT_SECONDS, "the video's card lists both times")
        errors = console_errors(driver)
        check(not errors, "console errors on the sliced report: %r" % errors)
    finally:
        driver.quit()


def check_combined_card_lists_the_times_of_every_video_and_plays_each(tool, work):
    """Two clips recorded 20 s apart, combined: their times lie on one clock line."""
    first = os.path.join(work, "videos", "corner.mp4")
    later = os.path.join(work, "videos", "later.mp4")
    make_clip(later, recorded="2024-05-01T10:00:20Z")
    report = os.path.join(work, "combined-report")
    result = run_tool(tool, ["-o", os.path.join(work, "combined-maps"), "--combine", "both", "--report", report,
                             first, later])
    check(result.returncode == 0, "a combined run with a report: %s" % result.stderr)
    driver = browser()
    try:
        open_report(driver, report)
        titles = sorted(h.text for h in driver.find_elements(By.CSS_SELECTOR, ".card h2"))
        check(titles == ["both", "corner.mp4", "later.mp4"], "a card per input and the combined map: %r" % titles)
        card = show_card(driver, "card-c")
        click_video_pixel(driver, card, HOT_PIXEL)
        listed_seconds(driver, "card-c")
        listed = listed_parts(driver, "card-c")
        check(listed == [[2, 2, "1"], [6, 6, "1"], [22, 2, "2"], [26, 6, "2"]],
              "the combined map's hot corner lists both videos' times on one line: %r" % listed)
        texts = [a.text for a in card.find_elements(By.CSS_SELECTOR, ".time-list a")]
        check(texts[2] == "0:22 · later.mp4 0:02", "a time names its video: %r" % texts)
        marks = driver.execute_script("return document.querySelectorAll('#card-c .chart .mark').length")
        check(marks == 4, "the combined chart marks every time, got %d" % marks)
        key = card.find_element(By.CSS_SELECTOR, ".chart .legend-key").text
        check("0:00 – 0:30" in key, "the combined chart spans both videos: %r" % key)
        card.find_elements(By.CSS_SELECTOR, ".time-list a")[2].click()
        wait_for(driver, "var v = document.querySelector('#card-c video');"
                 "return v && v.dataset.part === '2' && /later\\.mp4$/.test(v.src) && v.readyState >= 1 &&"
                 " !v.seeking && v.currentTime >= 2 && v.currentTime < 3;")
        click_video_pixel(driver, card, QUIET_PIXEL)
        check(listed_seconds(driver, "card-c") == [], "the quiet corner of the combined map lists no time")
        errors = console_errors(driver)
        check(not errors, "console errors on the combined report: %r" % errors)
    finally:
        driver.quit()


SCENE_CHANGE_SECOND = 4


def figures_of(card):
    terms = [dt.text for dt in card.find_elements(By.CSS_SELECTOR, ".figures dt")]
    values = [dd.text for dd in card.find_elements(By.CSS_SELECTOR, ".figures dd")]
    return dict(zip(terms, values))


def check_steady_light_marks_scene_changes(tool, work, shot=None):
    """A clip whose view changes at 4 s: in steady light its chart has one thin mark there,
    whose tip and slider text say "scene change", and its figures count one; without the
    option the same clip's card has neither."""
    clip = os.path.join(work, "videos", "lamp.mkv")
    make_scene_change_clip(clip)
    report = os.path.join(work, "steady-report")
    result = run_tool(tool, ["-o", os.path.join(work, "steady-maps"), "--steady-light", "--report", report, clip])
    check(result.returncode == 0, "a steady-light run with a report: %s" % result.stderr)
    rows = activity_rows(report, "1")
    changed = sorted(second for second, row in rows.items() if len(row) == 4 and row[3] > 0)
    check(all(len(row) == 4 for row in rows.values()) and changed == [SCENE_CHANGE_SECOND],
          "the data gives second %d its scene change: %r" % (SCENE_CHANGE_SECOND, rows))
    last = max(rows) + 1
    driver = browser()
    try:
        open_report(driver, report)
        card = show_card(driver, "card-1")
        check(figures_of(card).get("Scene changes") == "1", "the card counts one scene change: %r" % figures_of(card))
        marks = driver.execute_script(
            "return Array.from(document.querySelectorAll('#card-1 .chart .scene-change')).map(function (m) {"
            " var t = m.querySelector('title'); return [Number(m.getAttribute('x1')), t ? t.textContent : null,"
            " m.getBoundingClientRect().width]; });")
        check(len(marks) == 1, "one mark for the one scene change: %r" % marks)
        x, title, width = marks[0]
        check(abs(x - (SCENE_CHANGE_SECOND + 0.5) / last * 1000) < 0.01, "the mark stands on second 4: %r" % marks)
        check(title == "scene change", "the mark's tip says 'scene change': %r" % title)
        check(width <= 3, "the mark is thin: %r pixels" % width)
        key = card.find_element(By.CSS_SELECTOR, ".chart .legend-key").text
        check("scene change" in key, "the chart's key names the mark: %r" % key)

        # The mouse on the mark, and the keys on its second, show the same words.
        svg = card.find_element(By.CSS_SELECTOR, ".chart svg")
        driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", svg)
        dx = (SCENE_CHANGE_SECOND + 0.5) / last * svg.size["width"] - svg.size["width"] / 2
        ActionChains(driver).move_to_element_with_offset(svg, dx, 0).perform()
        state = chart_state(driver, "card-1")
        check(state["tip"] is not None and state["tip"].endswith(" · scene change"),
              "the tip over the mark says 'scene change': %r" % state)
        if shot:
            driver.save_screenshot(shot)
        ActionChains(driver).move_to_element(card.find_element(By.CSS_SELECTOR, "h2")).perform()
        tab_to_chart(driver, card)
        ActionChains(driver).send_keys(*[Keys.ARROW_RIGHT] * SCENE_CHANGE_SECOND).perform()
        state = chart_state(driver, "card-1")
        check(state["now"] == str(SCENE_CHANGE_SECOND) and state["tip"].endswith(" · scene change")
              and state["text"].endswith(", scene change"),
              "the keys reach the scene change and its tip says so: %r" % state)
        ActionChains(driver).send_keys(Keys.ARROW_RIGHT).perform()
        state = chart_state(driver, "card-1")
        check("scene change" not in state["tip"] and "scene change" not in state["text"],
              "the second after says nothing of a scene change: %r" % state)
        errors = console_errors(driver)
        check(not errors, "console errors on the steady-light report: %r" % errors)
    finally:
        driver.quit()

    plain_report = os.path.join(work, "unsteady-report")
    result = run_tool(tool, ["-o", os.path.join(work, "unsteady-maps"), "--report", plain_report, clip])
    check(result.returncode == 0, "the same clip without steady light: %s" % result.stderr)
    check(all(len(row) == 3 for row in activity_rows(plain_report, "1").values()),
          "without steady light the data has no scene changes")
    driver = browser()
    try:
        open_report(driver, plain_report)
        card = show_card(driver, "card-1")
        check("Scene changes" not in figures_of(card), "without steady light no figure counts scene changes")
        check(not card.find_elements(By.CSS_SELECTOR, ".chart .scene-change"), "without steady light no mark")
        check("scene change" not in card.find_element(By.CSS_SELECTOR, ".chart .legend-key").text,
              "without steady light the key names no mark")
    finally:
        driver.quit()



ZONE_NAMES = ["door <b>&amp; \"q\" 'é' 雪", "till"]


def zone_rows(path, name):
    """The rows of a zones table for the zone `name`, without its name."""
    rows = []
    with open(path, encoding="utf-8") as table:
        next(table)
        for line in table:
            quoted = '"' + name.replace('"', '""') + '",'
            if line.startswith(quoted):
                rows.append(line[len(quoted):])
    return rows


def draw_zone(driver, card, name, corners=None, keys=None):
    """Draws a zone on the card's map: clicks at `corners` (picture pixels), or sends `keys`
    to the map, then names it and adds it. Returns the page's JSON of the zones drawn."""
    card.find_element(By.CSS_SELECTOR, ".draw-zone").click()
    if corners:
        for corner in corners:
            click_video_pixel(driver, card, corner)
    if keys:
        img = card.find_element(By.CSS_SELECTOR, ".map img")
        check(driver.switch_to.active_element == img, "drawing does not put the focus on the map")
        actions = ActionChains(driver)
        for key in keys:
            if isinstance(key, tuple):
                actions.key_down(Keys.SHIFT).send_keys(key[1]).key_up(Keys.SHIFT)
            else:
                actions.send_keys(key)
        actions.perform()
    card.find_element(By.CSS_SELECTOR, ".zone-name-input").send_keys(name)
    card.find_element(By.CSS_SELECTOR, ".finish-zone").click()
    return json.loads(driver.find_element(By.ID, "zones-json").get_attribute("value"))


def check_zones_listed_outlined_and_drawn(tool, work):
    clip = os.path.join(work, "zoned.mp4")
    make_clip(clip)
    zones = {"zones": [{"name": ZONE_NAMES[0], "polygon": [[0, 0], [60, 0], [60, 50], [0, 50]]},
                       {"name": ZONE_NAMES[1], "polygon": [[40, 30], [150, 20], [120, 110]]}]}
    zone_file = os.path.join(work, "zones.json")
    with open(zone_file, "w", encoding="utf-8") as out:
        json.dump(zones, out, ensure_ascii=False)
    report = os.path.join(work, "zones-report")
    result = run_tool(tool, ["-o", os.path.join(work, "zones-maps"), "--zones", zone_file, "--report", report, clip])
    check(result.returncode == 0, "the zoned report failed: %s" % result.stderr)
    manifest = json.load(open(os.path.join(work, "zones-maps", "zoned.json"), encoding="utf-8"))
    driver = browser()
    try:
        open_report(driver, report)
        card = show_card(driver, "card-1")
        listed = driver.execute_script(
            "return Array.from(document.querySelectorAll('#card-1 .zone-list li'))"
            ".map(li => [li.querySelector('.zone-name').textContent, li.textContent, li.children.length]);")
        check([l[0] for l in listed] == ZONE_NAMES, "zones listed: %r" % listed)
        check(all(l[2] == 1 for l in listed), "a zone's name made markup: %r" % listed)
        for entry, figures in zip(listed, manifest["zones"]):
            check("%d events" % figures["events"] in entry[1], "zone figures not listed: %r" % entry[1])
        check(manifest["zones"][0]["events"] > 0, "the door zone saw no event: %r" % manifest["zones"][0])
        outlines = driver.execute_script(
            "return Array.from(document.querySelectorAll('#card-1 .zones-overlay .zone text')).map(t => t.textContent);")
        check(outlines == ZONE_NAMES, "zones outlined: %r" % outlines)

        # The chart shows a zone's series when it is chosen beside it, from the keyboard too.
        whole = driver.execute_script("return document.querySelector('#card-1 .chart svg').innerHTML;")
        choice = card.find_element(By.CSS_SELECTOR, ".chart-zone")
        options = driver.execute_script(
            "return Array.from(arguments[0].options).map(o => o.textContent);", choice)
        check(options == ["the whole picture"] + ["zone " + n for n in ZONE_NAMES], "chart choices: %r" % options)
        driver.execute_script("arguments[0].focus()", choice)
        ActionChains(driver).send_keys(Keys.ARROW_DOWN).perform()
        wait_for(driver, "return document.getElementById('card-1').dataset.chartZone === '0'")
        door = driver.execute_script("return document.querySelector('#card-1 .chart svg').innerHTML;")
        # The door holds all of the clip's motion, so its chart may look like the whole
        # picture's: what tells them apart is where the zone's own seconds come from.
        door_seconds = zone_line_seconds([(os.path.join(work, "zones-maps", "zoned.zones.csv"), 0)], ZONE_NAMES[0])
        check(door_seconds and chart_seconds(driver, "card-1")[1] == len(door_seconds),
              "the door zone's chart: %r seconds (with motion), its table %r" % (chart_seconds(driver, "card-1"), door_seconds))
        zone_seconds = driver.execute_script(
            "return Array.from(document.querySelectorAll('#card-1 .chart .events rect, #card-1 .chart rect.events'))"
            ".length;")
        ActionChains(driver).send_keys(Keys.ARROW_DOWN).perform()
        wait_for(driver, "return document.getElementById('card-1').dataset.chartZone === '1'")
        till = driver.execute_script("return document.querySelector('#card-1 .chart svg').innerHTML;")
        check(till != door and till != whole, "the till, which saw nothing, has the chart of the door or the whole")
        check(chart_seconds(driver, "card-1")[1] == 0, "the till's chart shows motion")
        ActionChains(driver).send_keys(Keys.ARROW_UP).send_keys(Keys.ARROW_UP).perform()
        wait_for(driver, "return document.getElementById('card-1').dataset.chartZone === ''")
        check(driver.execute_script("return document.querySelector('#card-1 .chart svg').innerHTML;") == whole,
              "the whole picture's chart did not come back (%d zone bars)" % zone_seconds)

        mouse = [[10, 12], [100, 15], [45, 95]]
        drawn = draw_zone(driver, card, "by mouse", corners=mouse)
        check(drawn == {"zones": [{"name": "by mouse", "polygon": mouse}]}, "drawn with the mouse: %r" % drawn)
        # The cursor starts at the middle of the picture (80, 60); Shift moves it by 10.
        keys = [Keys.ENTER, (True, Keys.ARROW_RIGHT), (True, Keys.ARROW_RIGHT), Keys.ARROW_RIGHT, Keys.ENTER,
                (True, Keys.ARROW_DOWN), (True, Keys.ARROW_DOWN), Keys.ARROW_LEFT, Keys.ENTER]
        drawn = draw_zone(driver, card, "by keys", keys=keys)
        by_keys = [[80, 60], [101, 60], [100, 80]]
        check(drawn["zones"][1] == {"name": "by keys", "polygon": by_keys}, "drawn with the keys: %r" % drawn)
        check(len(driver.find_elements(By.CSS_SELECTOR, "#card-1 .drawn-zone")) == 2, "drawn zones not outlined")
        errors = console_errors(driver)
        check(not errors, "console errors on the zoned report: %r" % errors)
    finally:
        driver.quit()

    # The page's JSON, given back to the tool, counts the same pixels as the polygons typed in.
    given = os.path.join(work, "drawn.json")
    with open(given, "w", encoding="utf-8") as out:
        json.dump(drawn, out)
    typed = os.path.join(work, "typed.json")
    with open(typed, "w", encoding="utf-8") as out:
        json.dump({"zones": [{"name": "by mouse", "polygon": mouse}, {"name": "by keys", "polygon": by_keys}]}, out)
    for name, path in (("drawn", given), ("typed", typed)):
        result = run_tool(tool, ["-o", os.path.join(work, name), "--zones", path, clip])
        check(result.returncode == 0, "the tool refused the %s zones: %s" % (name, result.stderr))
    for zone in ("by mouse", "by keys"):
        rows = zone_rows(os.path.join(work, "drawn", "zoned.zones.csv"), zone)
        check(rows == zone_rows(os.path.join(work, "typed", "zoned.zones.csv"), zone), "zone %s differs" % zone)
    areas = [z["area_pixels"] for z in json.load(open(os.path.join(work, "drawn", "zoned.json")))["zones"]]
    typed_areas = [z["area_pixels"] for z in json.load(open(os.path.join(work, "typed", "zoned.json")))["zones"]]
    check(areas == typed_areas and areas[0] > 1000, "areas of the drawn zones: %r, typed: %r" % (areas, typed_areas))
    check(zone_rows(os.path.join(work, "drawn", "zoned.zones.csv"), "by mouse"), "the drawn zone saw no motion")

def chart_seconds(driver, card_id):
    """The seconds the card's chart draws, and those of them with moving pixels: the corners of
    its area of moving pixels between its two corners at the foot, and those above the foot."""
    d = driver.execute_script(
        "var p = document.querySelector('#%s .chart path.moving'); return p ? p.getAttribute('d') : '';" % card_id)
    heights = [float(y) for y in re.findall(r"L[-\d.]+,([-\d.]+)", d)][:-1]
    return len(heights), sum(1 for y in heights if y < 100)


def zone_line_seconds(tables, name):
    """The seconds in which the zone `name` saw something, on the line of `tables` (each a
    zones table and the second its video starts at on the line)."""
    seconds = set()
    for path, offset in tables:
        for row in zone_rows(path, name):
            seconds.add(int(float(row.split(",")[1]) + offset))
    return seconds


def choose_zone_with_keys(driver, card_id, presses, expected):
    choice = driver.find_element(By.CSS_SELECTOR, "#%s .chart-zone" % card_id)
    driver.execute_script("arguments[0].scrollIntoView({block: 'center'}); arguments[0].focus()", choice)
    ActionChains(driver).send_keys(*presses).perform()
    wait_for(driver, "return document.getElementById('%s').dataset.chartZone === '%s'" % (card_id, expected))


def check_combined_and_manifest_cards_chart_their_zones(tool, work):
    """Two zoned clips recorded 20 s apart, each analysed with --data and then combined from
    their manifests: the combined card lists the summed zones, and it and each manifest's
    card chart a zone's series chosen with the keys, the combined one both videos' on one line."""
    first = os.path.join(work, "zoned.mp4")
    later = os.path.join(work, "zoned-later.mp4")
    make_clip(later, recorded="2024-05-01T10:00:20Z")
    zone_file = os.path.join(work, "zones.json")
    each = os.path.join(work, "zoned-each")
    result = run_tool(tool, ["-o", each, "--zones", zone_file, first, later])
    check(result.returncode == 0, "the zoned clips: %s" % result.stderr)
    report = os.path.join(work, "zoned-combined-report")
    maps = os.path.join(work, "zoned-combined")
    result = run_tool(tool, ["-o", maps, "--combine", "day", "--report", report,
                             os.path.join(each, "zoned.json"), os.path.join(each, "zoned-later.json")])
    check(result.returncode == 0, "combining the zoned manifests: %s" % result.stderr)
    summed = json.load(open(os.path.join(maps, "day.json"), encoding="utf-8"))["zones"]
    tables = [(os.path.join(each, "zoned.zones.csv"), 0), (os.path.join(each, "zoned-later.zones.csv"), 20)]
    door = zone_line_seconds(tables, ZONE_NAMES[0])
    check(door & set(range(0, 20)) and door & set(range(20, 40)), "the door zone saw both videos: %r" % door)
    driver = browser()
    try:
        open_report(driver, report)
        show_card(driver, "card-c")
        listed = driver.execute_script(
            "return Array.from(document.querySelectorAll('#card-c .zone-list li'))"
            ".map(li => [li.querySelector('.zone-name').textContent, li.textContent, li.children.length]);")
        check([l[0] for l in listed] == ZONE_NAMES, "the combined card's zones: %r" % listed)
        check(all(l[2] == 1 for l in listed), "a zone's name made markup on the combined card: %r" % listed)
        for entry, figures in zip(listed, summed):
            check("%d events" % figures["events"] in entry[1], "summed figures not listed: %r" % entry[1])
        options = driver.execute_script(
            "return Array.from(document.querySelectorAll('#card-c .chart-zone option')).map(o => o.textContent);")
        check(options == ["the whole picture"] + ["zone " + n for n in ZONE_NAMES], "combined chart choices: %r" % options)
        whole = chart_seconds(driver, "card-c")
        choose_zone_with_keys(driver, "card-c", [Keys.ARROW_DOWN], "0")
        drawn = chart_seconds(driver, "card-c")
        check(drawn == (whole[0], len(door)),
              "the combined chart of the door zone: %r seconds (with motion), not %r" % (drawn, (whole[0], len(door))))
        choose_zone_with_keys(driver, "card-c", [Keys.ARROW_DOWN], "1")
        check(chart_seconds(driver, "card-c") == (whole[0], 0), "the till saw nothing on the combined chart")

        show_card(driver, "card-2")
        check(driver.find_elements(By.CSS_SELECTOR, "#card-2 .zone-list li"), "the manifest's card lists no zone")
        choose_zone_with_keys(driver, "card-2", [Keys.ARROW_DOWN], "0")
        own = zone_line_seconds(tables[1:2], ZONE_NAMES[0])
        check(chart_seconds(driver, "card-2")[1] == len(own),
              "the manifest card's door chart: %r seconds (with motion), not %d with motion"
              % (chart_seconds(driver, "card-2"), len(own)))
        errors = console_errors(driver)
        check(not errors, "console errors on the combined zoned report: %r" % errors)
    finally:
        driver.quit()


def screenshot(tool, work, demo, out, keys_out):
    report = os.path.join(work, "demo-report")
    result = run_tool(tool, ["-o", os.path.join(work, "demo-maps"), "--report", report, demo])
    check(result.returncode == 0, "the demo clip's report: %s" % result.stderr)
    driver = browser((1200, 900))
    try:
        driver.get("file://" + os.path.join(report, "index.html"))
        wait_for(driver, "return document.querySelector('.card img').naturalWidth > 0")
        wait_for(driver, "return document.querySelector('.chart svg') !== null")
        card = driver.find_element(By.CSS_SELECTOR, ".card")
        img = card.find_element(By.CSS_SELECTOR, ".map img")
        # A point on the box's path, left of the middle.
        dx, dy = -img.size["width"] * 0.37, img.size["height"] * 0.05
        ActionChains(driver).move_to_element_with_offset(img, dx, dy).click().perform()
        wait_for(driver, "return /time|No motion/.test(document.querySelector('.times .hint').textContent)")
        driver.execute_script("window.scrollTo(0, 0)")
        check(not console_errors(driver), "console errors on the demo report")
        driver.save_screenshot(out)

        # The chart read with the keys, a third of the way in, where the box is moving.
        tab_to_chart(driver, card)
        ActionChains(driver).send_keys(*[Keys.ARROW_RIGHT] * 4).perform()
        slider = card.find_element(By.CSS_SELECTOR, ".chart [role=slider]")
        driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", slider)
        check(not console_errors(driver), "console errors reading the demo report's chart with the keys")
        driver.save_screenshot(keys_out)
    finally:
        driver.quit()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tool")
    parser.add_argument("work")
    parser.add_argument("--demo")
    parser.add_argument("--screenshot")
    args = parser.parse_args()
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    try:
        browser().quit()
    except WebDriverException as error:
        print("FAIL: headless Chromium does not start: %s" % error.msg, file=sys.stderr)
        return 1
    try:
        check_report(args.tool, args.work)
        check_slice_cards_list_the_times_of_their_slice(args.tool, args.work)
        check_combined_card_lists_the_times_of_every_video_and_plays_each(args.tool, args.work)
        scene_shot = os.path.splitext(args.screenshot)[0] + "-scene-change.png" if args.screenshot else None
        check_steady_light_marks_scene_changes(args.tool, args.work, scene_shot)
        check_zones_listed_outlined_and_drawn(args.tool, args.work)
        check_combined_and_manifest_cards_chart_their_zones(args.tool, args.work)
        if args.demo and args.screenshot:
            if not os.path.exists(args.demo):
                make_demo_clip(args.demo)
            keys_shot = os.path.splitext(args.screenshot)[0] + "-chart-keys.png"
            screenshot(args.tool, args.work, args.demo, args.screenshot, keys_shot)
            print("screenshots of the demo clip's report: %s, %s" % (args.screenshot, keys_shot))
    except Failure as failure:
        print("FAIL: %s" % failure, file=sys.stderr)
        return 1
    print("PASS")
    return 0


if __name__ == "__main__":
    sys.exit(main())
