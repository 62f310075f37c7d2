#!/usr/bin/env python3
"""The operator's page in a browser, over running walls.

What an action did is judged by the composed frames and the state of the wall, never by the page.
"""
import os
import sys
import tempfile
import unittest

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.select import Select

from accessibility import faults_of
from walls import (HEIGHT, OPERATE, VIEW, WIDTH, WallProcess, centre, console_errors, is_border_red, make_clip, open_browser,
                   wait_for)

PROGRAM = os.environ.get("TAVREL_PROGRAM", "")
HOSTILE = '<script>document.title="taken"</script>\'"&\u202e\u2066drow'
COLOURS = {"Green": ("0x20A040", (32, 160, 64)), "Blue": ("0x3050D0", (48, 80, 208)), "Yellow": ("0xD0C030", (208, 192, 48)),
           HOSTILE: ("0x20B0B0", (32, 176, 176))}

PIXEL_OF_VIDEO = """
const video = document.getElementById("video"), drawing = document.createElement("canvas").getContext("2d");
drawing.drawImage(video, -arguments[0] * video.videoWidth, -arguments[1] * video.videoHeight);
return [...drawing.getImageData(0, 0, 1, 1).data];
"""


def wall_text(folder):
    text = (f"[wall]\nwidth = {WIDTH}\nheight = {HEIGHT}\nframe_rate = 10\nspare = 1\nbackground = \"#101010\"\ndelay = 0.3\n"
            "[defaults]\nalarm = { freeze = false, silence = { after = 1 } }\n")
    for number, (name, (colour, _)) in enumerate(COLOURS.items()):
        clip = os.path.join(folder, f"{number}.mkv")
        make_clip(clip, colour, tone="aevalsrc=0|0" if name == "Blue" else "sine=440")
        label = "<img src=x onerror=alert(1)>" + "x" * 4000 if name == HOSTILE else name[0]
        text += (f"[[channel]]\nname = '''{name}'''\nsource = \"{clip}\"\nlabel = \"{label}\"\n" if name == HOSTILE else
                 f"[[channel]]\nname = \"{name}\"\nsource = \"{clip}\"\nlabel = \"{label}\"\n")
    return text


def is_colour(pixel, name):
    return all(abs(a - b) < 24 for a, b in zip(pixel, COLOURS[name][1]))


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.text = wall_text(cls.folder.name)
        cls.wall = WallProcess(PROGRAM, cls.folder.name, cls.text)
        cls.browser = open_browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.wall.stop()
        cls.folder.cleanup()

    def setUp(self):
        self.browser.get_log("browser")  # of the test before
        self.open(self.wall)

    def open(self, wall):
        self.browser.get(wall.url + "/")
        wait_for(lambda: self.browser.execute_script("return document.body.dataset.view"), "the page has begun")

    def find(self, css):
        return self.browser.find_element(By.CSS_SELECTOR, css)

    def box(self, name):
        for box in self.browser.find_elements(By.CSS_SELECTOR, ".box"):
            if box.get_attribute("data-key") == name:
                return box
        return None

    def boxes(self):
        return wait_for(lambda: all(self.box(name) for name in COLOURS), "a box for every window")

    def visible(self, css, text=""):
        """The elements that can be used, once there are some."""
        return wait_for(lambda: [one for one in self.browser.find_elements(By.CSS_SELECTOR, css)
                                 if one.is_displayed() and one.text.startswith(text)], f"{css} {text}")

    def button(self, text, within="body"):
        return self.visible(f"{within} button", text)[0]

    def press(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()

    def window(self, name):
        return self.wall.channel(name)["window"]

    def border(self, name):
        """Red pixels around a window, of the composed frame."""
        x, y, width, height = self.window(name)
        picture = self.wall.picture()
        return picture.count((x - 8, y - 8, width + 16, height + 16), is_border_red) - picture.count(
            (x + 8, y + 8, width - 16, height - 16), is_border_red)

    def shows(self, name, place):
        return is_colour(self.wall.picture().at(*place), name)

    def test_hands_take_effect_in_the_composed_frame(self):
        self.boxes()
        self.box("Green").click()
        wait_for(lambda: self.border("Green") > 300, "the selection border of what was clicked")
        self.press("2")
        wait_for(lambda: self.border("Blue") > 300 and self.border("Green") < 100, "the selection by a digit")
        self.press(Keys.ARROW_LEFT)
        wait_for(lambda: self.border("Green") > 300, "the selection by an arrow")

        corner = centre(self.window("Blue"))
        self.press(Keys.ENTER)
        wait_for(lambda: self.shows("Green", corner), "full screen")
        wait_for(lambda: self.box("Blue") is None, "boxes as the picture shows them")
        self.press(Keys.ESCAPE)
        wait_for(lambda: self.shows("Blue", corner), "back to the layout")
        self.boxes()

        ActionChains(self.browser).click_and_hold(self.box("Green")).move_to_element(self.box("Yellow")).release().perform()
        wait_for(lambda: self.shows("Yellow", centre(self.window("Yellow"))) and self.window("Yellow")[1] < 100,
                 "a drag swaps")
        wait_for(lambda: self.box("Yellow").location["y"] < self.box("Green").location["y"], "the boxes follow")
        self.box("Yellow").click()
        ActionChains(self.browser).key_down(Keys.SHIFT).send_keys(Keys.ARROW_DOWN).key_up(Keys.SHIFT).perform()
        wait_for(lambda: self.window("Yellow")[1] > 100 and self.shows("Yellow", centre(self.window("Yellow"))),
                 "Shift and an arrow swap")

        x, y, width, height = self.window("Green")
        under = (x, y + height + 1, width, 20)
        is_white = lambda r, g, b: min(r, g, b) > 150
        before = self.wall.picture().count(under, is_white)
        self.box("Green").click()
        self.press("e")
        self.visible(".label-line input")[0].send_keys(Keys.CONTROL, "a")
        self.press("Studio One", Keys.ENTER)
        wait_for(lambda: self.wall.picture().count(under, is_white) > 2 * before, "the label that was written")

        self.find("#layout-button").click()
        self.button("1+5", "dialog").click()
        wait_for(lambda: self.window("Green")[2] > 350 and self.shows("Green", centre(self.window("Green"))),
                 "a layout of the menu")
        self.wall.command({"command": "layout", "layout": "auto"})
        self.assertIn("in effect", self.visible("#action-list .done")[0].text)
        self.assertEqual(console_errors(self.browser), [])

    def test_the_wall_plays_as_video_and_a_channel_is_heard(self):
        self.boxes()
        wait_for(lambda: self.find("#picture-state").text == "Live", "video")
        frame = lambda: int(self.find("#stage").get_attribute("data-frame") or 0)
        first = wait_for(frame, "the number of a frame")
        wait_for(lambda: frame() > first + 20, "frames")
        pixel = self.browser.execute_script(PIXEL_OF_VIDEO, *[side / size for side, size in zip(
            centre(self.window("Yellow")), (WIDTH, HEIGHT))])
        self.assertTrue(is_colour(pixel[:3], "Yellow"), pixel)
        self.box("Yellow").click()
        self.press("l")
        level = lambda: int(self.browser.execute_script("return document.getElementById('heard-level').value"))
        wait_for(lambda: self.find("#heard-name").text == "Yellow" and level() > -40, "the tone of what is heard", 20)
        wait_for(lambda: frame() > first + 60 and self.find("#picture-state").text == "Live", "frames with audio")
        self.press("l")
        wait_for(lambda: not self.find("#heard").is_displayed(), "nothing is heard")
        self.assertEqual(console_errors(self.browser), [])

    def test_alarms_are_acknowledged_in_the_composed_frame_and_stay_in_the_history(self):
        self.boxes()
        wait_for(lambda: "silence" in self.wall.channel("Blue")["live"]["alarms"], "an alarm")
        window = self.window("Blue")
        is_alarm = lambda r, g, b: r > 150 and g < 90 and b < 90
        wait_for(lambda: self.wall.picture().count(window, is_alarm) > 20, "the alarm in the picture")
        self.find("#tab-alarms").click()
        self.button("Acknowledge", "#alarm-list").click()
        fields = self.visible("dialog input")
        fields[0].clear()
        fields[0].send_keys("Ann")
        fields[1].send_keys("rings them <b>up</b>", Keys.ENTER)
        wait_for(lambda: self.wall.picture().count(window, is_alarm) < 5, "no alarm in the picture any more")
        one = self.wall.channel("Blue")["acknowledged"]["silence"]
        self.assertEqual((one["who"], one["note"]), ("Ann", "rings them <b>up</b>"))
        self.button("Mask", "#alarm-list").click()
        Select(self.visible("dialog select")[0]).select_by_visible_text("1 hour")
        self.button("Mask", "dialog").click()
        wait_for(lambda: "masked_until" in self.wall.channel("Blue"), "the mask")
        self.open(self.wall)  # the wall keeps the history, not the page
        self.boxes()
        self.find("#tab-history").click()
        text = wait_for(lambda: self.find("#history-list").text, "the history")
        for line in ("Blue: silence raised", "Acknowledge silence of Blue (Ann): rings them <b>up</b>", "Mask Blue for 60 min"):
            self.assertIn(line, text)
        self.assertEqual(console_errors(self.browser), [])

    def test_sources_come_and_go_and_mistakes_stand_at_their_field(self):
        self.boxes()
        self.find("#add-button").click()
        source, name = self.visible("dialog input")[:2]
        source.send_keys("nonsense://x", Keys.ENTER)
        error = self.find("#" + source.get_attribute("aria-describedby").split()[0])
        wait_for(lambda: error.text, "why it was refused")
        self.assertEqual(source.get_attribute("aria-invalid"), "true")
        source.clear()
        source.send_keys(os.path.join(self.folder.name, "0.mkv"))
        name.send_keys("Green", Keys.ENTER)
        wait_for(lambda: name.get_attribute("aria-invalid") == "true", "the name is taken")
        name.send_keys(" 2", Keys.ENTER)
        wait_for(lambda: (self.wall.channel("Green 2") or {}).get("live", {}).get("state") == "live", "the new channel")
        wait_for(lambda: is_colour(self.wall.picture().at(*centre(self.window("Green 2"))), "Green"), "its picture")
        wait_for(lambda: self.box("Green 2"), "its box").click()
        self.button("Remove", "#channel-panel").click()
        self.button("Remove", "dialog").click()
        wait_for(lambda: self.wall.channel("Green 2") is None, "it is gone")

    def test_hostile_names_are_text(self):
        self.boxes()
        self.box(HOSTILE).click()
        wait_for(lambda: self.find("#channel-panel h2").text.startswith("<script>"), "the name in the panel")
        row = [row for row in self.visible(".row") if "<script>" in row.text]
        self.assertEqual(len(row), 1)
        self.assertIn("<img src=x", row[0].text)
        self.assertEqual(self.browser.find_elements(By.CSS_SELECTOR, "main script, main img[src='x']"), [])
        self.assertNotEqual(self.browser.title, "taken")
        width, room = self.browser.execute_script(
            "return [document.documentElement.scrollWidth, document.documentElement.clientWidth]")
        self.assertLessEqual(width, room)

    def test_controls_have_names_and_texts_have_contrast(self):
        self.boxes()
        self.box("Green").click()
        for state in ("list", "alarms", "history", "layouts", "add", "keys"):
            if state in ("alarms", "history"):
                self.find(f"#tab-{state}").click()
            elif state != "list":
                self.find({"layouts": "#layout-button", "add": "#add-button", "keys": "#help-button"}[state]).click()
                self.visible("dialog")
            self.assertEqual(faults_of(self.browser), [], state)
            self.press(Keys.ESCAPE)
            wait_for(lambda: not self.browser.find_elements(By.CSS_SELECTOR, "dialog[open]"), f"{state} is closed")

    def test_a_wall_that_was_started_again_is_right_again(self):
        self.boxes()
        self.wall.stop()
        wait_for(lambda: "lost" in self.find("#banner").text and self.find("#veil").is_displayed(), "the page says so")
        self.wall.file.write_text(self.wall.file.read_text().replace('name = "Green"', 'name = "Olive"'))
        try:
            self.wall.start()
            wait_for(lambda: self.box("Olive") and not self.find("#banner").is_displayed(), "the new state", 20)
            wait_for(lambda: not self.find("#veil").is_displayed(), "the picture")
        finally:
            self.wall.stop()
            self.wall.file.write_text(self.wall.file.read_text().replace('name = "Olive"', 'name = "Green"'))
            self.wall.start()

    def test_who_may_only_look_has_no_hands_and_a_session_ends(self):
        with tempfile.TemporaryDirectory() as folder:
            wall = WallProcess(PROGRAM, folder, self.text, tokens=True)
            try:
                self.open(wall)
                wait_for(lambda: self.find("#token").is_displayed(), "the page asks for a token")
                self.find("#token").send_keys("wrong", Keys.ENTER)
                wait_for(lambda: self.find("#token-error").text, "it is refused")
                self.find("#token").clear()
                self.find("#token").send_keys(VIEW, Keys.ENTER)
                self.boxes()
                version = wall.get("/api/v1/wall")["version"]
                self.box("Blue").click()
                self.press("1", Keys.ENTER, "m", "e")
                hands = [one for one in self.browser.find_elements(By.CSS_SELECTOR, ".hands") if one.is_displayed()]
                self.assertEqual(hands, [])
                self.assertEqual(wall.get("/api/v1/wall")["version"], version)
                cookie = self.browser.get_cookie("tavrel_session")
                self.assertTrue(cookie["httpOnly"])
                self.assertEqual(cookie["sameSite"], "Strict")
                self.button("Sign out").click()
                wait_for(lambda: self.find("#token").is_displayed(), "the session is over")
                self.find("#token").send_keys(OPERATE, Keys.ENTER)
                self.boxes()
                self.box("Blue").click()
                wait_for(lambda: wall.channel("Blue")["selected"], "one who may change the wall")
            finally:
                wall.stop()


if __name__ == "__main__":
    if not PROGRAM:
        sys.exit("TAVREL_PROGRAM names the program")
    unittest.main(verbosity=2)
