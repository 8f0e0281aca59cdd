#!/usr/bin/python3
"""The time-lapse film of tremora-map in its report, played by headless Chromium.

Usage: film_in_browser.py TREMORA_MAP WORK_DIR [--screenshot PNG]

Makes a clip with a square that crosses the picture, runs the tool with --report and
--timelapse, opens the page from disk and checks, as a user would meet it, that the card of
the video and the card of a combined map each show a film beside the map, with the browser's
own controls, that each film plays from its start to its end (every picture decoded: the
video element reaches its duration and says it ended), and that the page logs no console
error. With --screenshot, keeps a screenshot of the first card with its film. Exits 0 when
every check passed, 1 with the first failure otherwise.
"""

import argparse
import os
import shutil
import subprocess
import sys

from selenium.webdriver.common.by import By

from report_in_browser import Failure, browser, check, console_errors, wait_for

SIZE = (320, 180)
STEP_SECONDS = 1
CLIP_SECONDS = 12


def make_clip(path, seconds, recorded):
    subprocess.run(
        ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-y", "-filter_complex",
         "color=c=0x505050:s=%dx%d:d=%d:r=25[scene];color=c=white:s=32x32:r=25[square];"
         "[scene][square]overlay=x='t*20':y=60:shortest=1,format=yuv420p" % (SIZE[0], SIZE[1], seconds),
         "-c:v", "libx264", "-pix_fmt", "yuv420p", "-metadata", "creation_time=" + recorded, path],
        check=True)


def pictures_in(path):
    probe = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                            "stream=nb_read_frames", "-of", "csv=p=0", path],
                           check=True, capture_output=True, text=True)
    return int(probe.stdout.strip())


def check_film_plays_to_its_end(driver, card, pictures):
    video = card.find_element(By.CSS_SELECTOR, ".film video")
    check(video.get_attribute("controls") is not None, "the film has no controls")
    driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", video)
    # Every picture is shown for 1/25 s: the element's duration is the film's length.
    selector = "document.querySelector('#%s .film video')" % card.get_attribute("id")
    wait_for(driver, "var v = %s; return v.readyState >= 1 && v.duration > 0" % selector)
    duration = driver.execute_script("return arguments[0].duration", video)
    check(abs(duration - pictures / 25.0) < 0.05, "the film lasts %r s, not %r" % (duration, pictures / 25.0))
    driver.execute_script(
        "var v = arguments[0]; v.dataset.ended = ''; v.addEventListener('ended', function () {"
        " v.dataset.ended = 'yes'; }); v.currentTime = 0; v.play();", video)
    wait_for(driver, "return %s.dataset.ended === 'yes'" % selector, timeout=30.0)
    state = driver.execute_script(
        "var v = arguments[0]; return {ended: v.ended, time: v.currentTime, duration: v.duration,"
        " error: v.error ? v.error.code : null, decoded: v.getVideoPlaybackQuality ?"
        " v.getVideoPlaybackQuality().totalVideoFrames : -1};", video)
    check(state["ended"] and state["error"] is None, "the film did not play to its end: %r" % state)
    check(abs(state["time"] - state["duration"]) < 0.05, "the film stopped at %r s of %r" % (state["time"],
                                                                                          state["duration"]))
    check(state["decoded"] >= pictures - 1, "the browser decoded %r of %d pictures" % (state["decoded"], pictures))


def check_films(tool, work, screenshot):
    clips = os.path.join(work, "clips")
    os.makedirs(clips)
    first = os.path.join(clips, "crossing.mp4")
    second = os.path.join(clips, "later.mp4")
    make_clip(first, CLIP_SECONDS, "2024-05-01T10:00:00Z")
    make_clip(second, 4, "2024-05-01T10:00:20Z")
    maps = os.path.join(work, "maps")
    report = os.path.join(work, "report")
    subprocess.run([tool, "--quiet", "--output-dir", maps, "--timelapse", "%ds" % STEP_SECONDS, "--report", report,
                    first], check=True)
    combined_report = os.path.join(work, "combined-report")
    subprocess.run([tool, "--quiet", "--output-dir", maps, "--timelapse", "%ds" % STEP_SECONDS, "--combine", "both",
                    "--report", combined_report, first, second], check=True)
    driver = browser()
    try:
        driver.get("file://" + os.path.join(report, "index.html"))
        wait_for(driver, "return document.readyState === 'complete'")
        cards = driver.find_elements(By.CSS_SELECTOR, ".card")
        check(len(cards) == 1, "%d cards, not 1" % len(cards))
        film = os.path.join(report, cards[0].find_element(By.CSS_SELECTOR, ".film video").get_attribute("src")
                            .split("file://")[-1].split(report + "/")[-1])
        check(os.path.isfile(film), "the film's file %s is not in the report" % film)
        check_film_plays_to_its_end(driver, cards[0], pictures_in(film))
        events = driver.execute_script("return document.body.innerText")
        check("Events\t0\n" not in events and "Events\n0\n" not in events, "the clip showed no motion")
        if screenshot:
            # Half-way through the film, where part of the square's track is drawn.
            driver.execute_script("var v = arguments[0]; v.pause(); v.currentTime = v.duration / 2;",
                                  cards[0].find_element(By.CSS_SELECTOR, ".film video"))
            wait_for(driver, "return document.querySelector('#%s .film video').readyState >= 2"
                     % cards[0].get_attribute("id"))
            driver.execute_script("arguments[0].scrollIntoView()", cards[0])
            cards[0].screenshot(screenshot)
        errors = console_errors(driver)
        check(not errors, "console errors: %r" % errors)

        driver.get("file://" + os.path.join(combined_report, "index.html"))
        wait_for(driver, "return document.readyState === 'complete'")
        combined = [c for c in driver.find_elements(By.CSS_SELECTOR, ".card")
                    if c.find_element(By.CSS_SELECTOR, "h2").text == "both"]
        check(len(combined) == 1, "no card of the combined map")
        # The clock time line: 20 s apart, the second lasting 4 s.
        pictures = pictures_in(os.path.join(maps, "both.timelapse.mp4"))
        check(pictures == 24, "the combined film has %d pictures, not 24" % pictures)
        check_film_plays_to_its_end(driver, combined[0], pictures)
        # The cards of the inputs of a combination have no film of their own.
        check(len(driver.find_elements(By.CSS_SELECTOR, ".film video")) == 1, "more than the combined film")
        errors = console_errors(driver)
        check(not errors, "console errors: %r" % errors)
    finally:
        driver.quit()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tool")
    parser.add_argument("work")
    parser.add_argument("--screenshot")
    args = parser.parse_args()
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    try:
        check_films(args.tool, args.work, args.screenshot)
    except Failure as failure:
        print("FAIL: %s" % failure)
        return 1
    print("1 passed, 0 failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
