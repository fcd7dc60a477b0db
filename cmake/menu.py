# Puts tzVorel in the Nodes toolbar; the host ignores the menu path a plug-in registers with.
import nuke

nuke.menu("Nodes").addMenu("Kestavian").addCommand("tzVorel", "nuke.createNode('tzVorel')")
